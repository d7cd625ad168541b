// lx530: the command-line face of lx_api.
//
//   lx530 [--sim[=SCENE.json]] [--sim-serial N] [--json] list
//   lx530 [--sim[=SCENE.json]] [--sim-serial N] [--json] list FREQ... | --csv FILE [options]
//   lx530 [--sim[=SCENE.json]] [--sim-serial N] [--json] info [--serial N]
//   lx530 [--sim[=SCENE.json]] [--sim-serial N] [--json] sweep [options]
//   lx530 [--sim[=SCENE.json]] [--sim-serial N] [--json] rt [options]
//   lx530 [--sim[=SCENE.json]] [--sim-serial N] [--json] flash ACTION [options]
//   lx530 [--sim[=SCENE.json]] [--sim-serial N] [--json] iq [options]
//   lx530 [--sim[=SCENE.json]] [--sim-serial N] [--json] audio [options]
//
// The global options may also follow the subcommand. Exit codes: 0 done,
// 1 the library or an analyzer refused, 2 the command line is wrong.
#include "main.h"

int main(int argc, char** argv) { return lx::cli::Main(argc, argv); }
