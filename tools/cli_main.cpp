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

int Main(int argc, const char* const* argv, bool parseOnly) {
    CLI::App app{"Finds, inspects and measures with LX530 spectrum analyzers.", "lx530"};
    app.footer("Exit status: 0 done, 1 the library or an analyzer refused, 2 wrong command line.\n"
               "Without hardware: 'lx530 --sim info' or 'lx530 sweep --scene scenes/demo.json' run on a\n"
               "simulated LX530 (docs/simulator.md).");
    // Subcommands hand options they do not know to the top level, so that
    // the global ones work after the subcommand too.
    app.fallthrough();
    app.set_version_flag("--version", std::string("lx530 ") + LX530_VERSION + " (lx_api " + lxGetAPIVersion() + ")",
                         "Print the tool and library versions and exit");

    std::optional<std::string> sceneFile;
    int32_t simSerial = kDefaultSimSerial;
    bool json = false;
    std::string scene;
    auto* sim = app.add_option("--sim", scene,
                               "Attach a simulated LX530 first, with the scene in SCENE.json "
                               "(the default scene without a file). Give a file as --sim=FILE.")
                    ->expected(0, 1)
                    ->type_name("[SCENE.json]");
    app.add_option("--sim-serial", simSerial,
                   "Serial number of the simulated LX530 (default " + std::to_string(kDefaultSimSerial) + ")")
        ->type_name("SERIAL")
        ->check(CLI::Range(10000000, 99999999));
    app.add_flag("--json", json, "Print a JSON document instead of text");

    auto* list = app.add_subcommand(
        "list", "List the attached analyzers; with frequencies, capture I/Q at each of them (an I/Q sweep list)");
    IqListOptions iqListOptions;
    AddIqListOptions(*list, iqListOptions);
    auto* info = app.add_subcommand(
        "info", "Open an analyzer (the first, or --serial) and print its identity, housekeeping and GPS state");
    std::optional<int32_t> serial;
    info->add_option("--serial", serial, "Serial number of the analyzer to open")->type_name("SERIAL");
    info->footer(kGlobalFooter);
    SweepOptions sweepOptions;
    auto* sweep = AddSweepCommand(app, sweepOptions);
    RealTimeOptions rtOptions;
    auto* rt = AddRealTimeCommand(app, rtOptions);
    FlashOptions flashOptions;
    auto* flash = AddFlashCommand(app, flashOptions);
    IqOptions iqOptions;
    auto* iq = AddIqCommand(app, iqOptions);
    AudioOptions audioOptions;
    auto* audio = AddAudioCommand(app, audioOptions);

    // Leftovers are reported here rather than by the parser, so that a
    // mistyped subcommand is named as one.
    app.allow_extras();
    app.require_subcommand(0, 1);

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
    if (list->parsed() && !iqListOptions.Requested() && iqListOptions.AnyGiven(*list))
        return UsageError("list: the sweep-list options need frequencies or --csv");
    if (sim->count() > 0 && !scene.empty()) sceneFile = scene;
    // `sweep --scene FILE` is --sim=FILE spelt the way a measurement reads.
    const std::optional<std::string> noScene;
    const std::optional<std::string>& sceneGiven = sweep->parsed() ? sweepOptions.scene
                                                   : rt->parsed()  ? rtOptions.scene
                                                   : iq->parsed()  ? iqOptions.scene
                                                   : audio->parsed() ? audioOptions.scene
                                                   : list->parsed() ? iqListOptions.scene
                                                                    : noScene;
    const bool sceneOption = sceneGiven.has_value();
    if (sceneOption) {
        if (sim->count() > 0) return UsageError("give the scene either as --sim=FILE or as --scene FILE");
        sceneFile = sceneGiven;
    }
    const bool simulate = sim->count() > 0 || sceneOption;
    if (app.get_option("--sim-serial")->count() > 0 && !simulate)
        return UsageError("--sim-serial needs --sim (or --scene)");
    if (parseOnly) return kExitOk;

    int code = kExitOk;
    try {
        // Declared first, so unplugged only after the analyzer was closed.
        std::optional<SimulatedAnalyzer> simulated;
        if (simulate) simulated.emplace(simSerial, sceneFile);
        if (list->parsed() && iqListOptions.Requested())
            code = RunIqList(iqListOptions, json);
        else if (list->parsed())
            code = RunList(json);
        else if (info->parsed())
            code = RunInfo(serial, json);
        else if (rt->parsed())
            code = RunRealTime(rtOptions, json);
        else if (flash->parsed())
            code = RunFlash(flashOptions, json);
        else if (iq->parsed())
            code = RunIq(iqOptions, json);
        else if (audio->parsed())
            code = RunAudio(audioOptions, json);
        else
            code = RunSweep(sweepOptions, json);
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
