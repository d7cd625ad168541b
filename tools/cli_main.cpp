// The command line of lx530: parsed, checked, and run.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "audio.h"
#include "cli_support.h"
#include "commands.h"
#include "flash.h"
#include "iq_list.h"
#include "iq.h"
#include "main.h"
#include "lx_api.h"
#include "realtime.h"
#include "sweep.h"

namespace lx::cli {

namespace {

constexpr const char* kGlobalFooter =
    "Global options (before or after the subcommand): --sim[=SCENE.json], --sim-serial N, --json.\n"
    "See 'lx530 --help'.";

int UsageError(const std::string& message) {
    std::fprintf(stderr, "lx530: %s\nRun 'lx530 --help' for usage.\n", message.c_str());
    return kExitUsage;
}

} // namespace

// Everything the command line sets, and the parser bound to it. CLI11 writes
// only the options given, so every parse first puts the defaults back.
struct CommandLine::Parts {
    struct Values {
        int32_t simSerial = kDefaultSimSerial;
        bool json = false;
        std::string scene;
        std::optional<int32_t> serial;
        IqListOptions iqList;
        SweepOptions sweep;
        RealTimeOptions rt;
        FlashOptions flash;
        IqOptions iq;
        AudioOptions audio;
    } v;
    CLI::App app{"Finds, inspects and measures with LX530 spectrum analyzers.", "lx530"};
    CLI::Option* sim = nullptr;
    CLI::App *list = nullptr, *info = nullptr, *sweep = nullptr, *rt = nullptr, *flash = nullptr, *iq = nullptr,
             *audio = nullptr;
    // After a parse that leaves something to run: the scene file, if any,
    // and whether to attach a simulated analyzer.
    std::optional<std::string> sceneFile;
    bool simulate = false;

    Parts();
    std::optional<int> Parse(int argc, const char* const* argv);
};

CommandLine::Parts::Parts() {
    app.footer("Exit status: 0 done, 1 the library or an analyzer refused, 2 wrong command line.\n"
               "Without hardware: 'lx530 --sim info' or 'lx530 sweep --scene scenes/demo.json' run on a\n"
               "simulated LX530 (docs/simulator.md).");
    // Subcommands hand options they do not know to the top level, so that
    // the global ones work after the subcommand too.
    app.fallthrough();
    app.set_version_flag("--version", std::string("lx530 ") + LX530_VERSION + " (lx_api " + lxGetAPIVersion() + ")",
                         "Print the tool and library versions and exit");

    sim = app.add_option("--sim", v.scene,
                         "Attach a simulated LX530 first, with the scene in SCENE.json "
                         "(the default scene without a file). Give a file as --sim=FILE.")
              ->expected(0, 1)
              ->type_name("[SCENE.json]");
    app.add_option("--sim-serial", v.simSerial,
                   "Serial number of the simulated LX530 (default " + std::to_string(kDefaultSimSerial) + ")")
        ->type_name("SERIAL")
        ->check(CLI::Range(10000000, 99999999));
    app.add_flag("--json", v.json, "Print a JSON document instead of text");

    list = app.add_subcommand(
        "list", "List the attached analyzers; with frequencies, capture I/Q at each of them (an I/Q sweep list)");
    AddIqListOptions(*list, v.iqList);
    info = app.add_subcommand(
        "info", "Open an analyzer (the first, or --serial) and print its identity, housekeeping and GPS state");
    info->add_option("--serial", v.serial, "Serial number of the analyzer to open")->type_name("SERIAL");
    info->footer(kGlobalFooter);
    sweep = AddSweepCommand(app, v.sweep);
    rt = AddRealTimeCommand(app, v.rt);
    flash = AddFlashCommand(app, v.flash);
    iq = AddIqCommand(app, v.iq);
    audio = AddAudioCommand(app, v.audio);

    // Leftovers are reported here rather than by the parser, so that a
    // mistyped subcommand is named as one.
    app.allow_extras();
    app.require_subcommand(0, 1);
}

std::optional<int> CommandLine::Parts::Parse(int argc, const char* const* argv) {
    v = Values{};
    sceneFile.reset();
    simulate = false;
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        return UsageError(e.what());
    }

    const auto extras = app.remaining();
    const bool haveSubcommand =
        list->parsed() || info->parsed() || sweep->parsed() || flash->parsed() || rt->parsed() || iq->parsed() ||
        audio->parsed();
    if (!extras.empty()) {
        if (!haveSubcommand && extras.front().rfind('-', 0) != 0)
            return UsageError("unknown subcommand '" + extras.front() + "' (try 'list', 'info', 'sweep', 'rt', 'iq', 'audio' or 'flash')");
        return UsageError("unexpected argument '" + extras.front() + "'");
    }
    if (!haveSubcommand) return UsageError("a subcommand is required: 'list', 'info', 'sweep', 'rt', 'iq', 'audio' or 'flash'");
    if (list->parsed() && !v.iqList.Requested() && v.iqList.AnyGiven(*list))
        return UsageError("list: the sweep-list options need frequencies or --csv");
    if (sim->count() > 0 && !v.scene.empty()) sceneFile = v.scene;
    // `sweep --scene FILE` is --sim=FILE spelt the way a measurement reads.
    const std::optional<std::string> noScene;
    const std::optional<std::string>& sceneGiven = sweep->parsed() ? v.sweep.scene
                                                   : rt->parsed()  ? v.rt.scene
                                                   : iq->parsed()  ? v.iq.scene
                                                   : audio->parsed() ? v.audio.scene
                                                   : list->parsed() ? v.iqList.scene
                                                                    : noScene;
    const bool sceneOption = sceneGiven.has_value();
    if (sceneOption) {
        if (sim->count() > 0) return UsageError("give the scene either as --sim=FILE or as --scene FILE");
        sceneFile = sceneGiven;
    }
    simulate = sim->count() > 0 || sceneOption;
    if (app.get_option("--sim-serial")->count() > 0 && !simulate)
        return UsageError("--sim-serial needs --sim (or --scene)");
    return std::nullopt;
}

CommandLine::CommandLine() : p_(std::make_unique<Parts>()) {}
CommandLine::~CommandLine() = default;

int CommandLine::Check(int argc, const char* const* argv) { return p_->Parse(argc, argv).value_or(kExitOk); }

int Main(int argc, const char* const* argv) {
    CommandLine cl;
    auto& p = *cl.p_;
    if (const auto refused = p.Parse(argc, argv)) return *refused;
    const auto& v = p.v;
    const bool json = v.json;
    const auto *list = p.list, *info = p.info, *rt = p.rt, *flash = p.flash, *iq = p.iq, *audio = p.audio;

    int code = kExitOk;
    try {
        // Declared first, so unplugged only after the analyzer was closed.
        std::optional<SimulatedAnalyzer> simulated;
        if (p.simulate) simulated.emplace(v.simSerial, p.sceneFile);
        if (list->parsed() && v.iqList.Requested())
            code = RunIqList(v.iqList, json);
        else if (list->parsed())
            code = RunList(json);
        else if (info->parsed())
            code = RunInfo(v.serial, json);
        else if (rt->parsed())
            code = RunRealTime(v.rt, json);
        else if (flash->parsed())
            code = RunFlash(v.flash, json);
        else if (iq->parsed())
            code = RunIq(v.iq, json);
        else if (audio->parsed())
            code = RunAudio(v.audio, json);
        else
            code = RunSweep(v.sweep, json);
    } catch (const Failure& f) {
        std::fprintf(stderr, "lx530: %s\n", f.what());
        if (!f.Hint().empty()) std::fprintf(stderr, "lx530: %s\n", f.Hint().c_str());
        return f.ExitCode();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "lx530: internal error: %s\n", e.what());
        return kExitFailure;
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        std::fprintf(stderr, "lx530: writing the output: %s\n", std::strerror(errno));
        return kExitFailure;
    }
    return code;
}

} // namespace lx::cli
