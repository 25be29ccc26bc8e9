/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The command line: every option of every command, as the library parses it. The one file that knows the
 * library. */
#include "companion/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "companion/command_help.h"
#include "companion/commands.h"
#include "companion/ending.h"
#include "companion/results/results.h"
#include "platform/offline/base/progress_line.h"
#include "platform/offline/main/call_tool.h"

namespace companion {
namespace {

/* ---- The options of each command ---- */

template <class Options>
void declareImages(CLI::App& app, Options& options) {
    app.add_option("IMAGE", options.images, "The machine's disks: image files, block devices or addresses")
        ->required();
    app.add_option(
           "--format", options.format,
           "Their format, or one for each with commas between: raw, qcow2, vmdk, vhdx, vhd, vdi or auto "
           "(what name and contents agree on)")
        ->envname("QUILLET_FORMAT")
        ->type_name("FORMAT");
}

void declareJson(CLI::App& app, bool& json) {
    app.add_flag("--json", json, "Print one JSON object (docs/results.md)");
}

/* An empty one, as of a variable that is not set, must not be no option at all. */
std::string refuseNoName(const std::string& file) {
    return file.empty() ? "the file's name is empty" : "";
}

void declareIdentity(CLI::App& app, IdentityOptions& options, const char* name) {
    app.add_option("--computer-name", options.computerName, name)->type_name("NAME");
    app.add_option(
           "--new", options.renewed,
           "Ids to be made anew, with commas between: machine-guid, wsus-id, duid, telemetry-id, or all")
        ->type_name("IDS");
}

/* A whole number in decimal digits, after which a unit may stand. The library would take a zero before it for
 * an octal number's, "0x" for a hexadecimal one's, and signs. */
std::string decimal(const std::string& word) {
    const size_t end = std::min(word.find_first_not_of("0123456789"), word.size());
    if (end == 0 || word.find_first_of("0123456789xX", end) != std::string::npos)
        throw CLI::ValidationError("\"" + word + "\": give a whole number in decimal digits");
    return word.substr(std::min(word.find_first_not_of('0'), end - 1));
}

void declareReport(CLI::App& app, std::string& file) {
    app.add_option("--report", file, "Write a page of HTML to hand over")
        ->check(refuseNoName)
        ->type_name("FILE");
}

void declare(CLI::App& app, SampleOptions& options) {
    app.add_option("IMAGE", options.image, "The file to be made")->required();
    app.add_option("--size", options.size, "The image's size, such as 256M (what the files need)")
        ->transform(CLI::AsSizeValue(false).description(""))
        ->transform(decimal)
        ->type_name("SIZE");
    app.add_option("--whole-disk", options.table, "A whole disk with this partition table: mbr or gpt")
        ->check(CLI::IsMember({"mbr", "gpt"}).description(""))
        ->type_name("TABLE");
    app.add_flag("--force", options.force, "Replace the file when it is there");
    app.add_option("--files", options.files, "How many ordinary files (400)")
        ->transform(decimal)
        ->check(CLI::Range(0, 1000000).description(""))
        ->type_name("N");
    app.add_option("--descriptors", options.descriptors,
                   "How many different security descriptors among them (60)")
        ->transform(decimal)
        ->check(CLI::Range(1, 100000).description(""))
        ->type_name("N");
    app.add_option("--machine", options.machine, "The machine's SID (a random one)")->type_name("SID");
}

void declare(CLI::App& app, InfoOptions& options) {
    declareImages(app, options);
    declareJson(app, options.json);
}

void declare(CLI::App& app, AuditOptions& options) {
    declareImages(app, options);
    app.add_option("--sid", options.sid, "The SID to look for (the machine's)")->type_name("SID");
    app.add_flag("--all", options.all, "List every place");
    declareReport(app, options.report);
    declareJson(app, options.json);
}

void declare(CLI::App& app, PlanOptions& options) {
    declareImages(app, options);
    app.add_flag("-v,--verbose", options.verbose, "List every place");
    declareIdentity(app, options.identity, "The name that the computer would get");
    declareReport(app, options.report);
    declareJson(app, options.json);
}

void declare(CLI::App& app, RunOptions& options) {
    declareImages(app, options);
    CLI::Option* const file = app.add_option("--undo", options.undoFile, "Where the undo file is kept");
    file->check(refuseNoName)->type_name("FILE");
    app.add_flag("--no-undo", options.noUndo, "Keep no undo file")->excludes(file);
    CLI::Option* const commit =
        app.add_option("--commit", options.commit, "When changes are written: success or always (success)");
    commit->check(CLI::IsMember({"success", "always"}).description(""))->type_name("WHEN");
    app.add_flag("--scratch", options.scratch)->group(""); /* for clone alone, and shown nowhere */
    app.add_flag("--verify", options.verify, "Audit the disks at the end, and tell");
    app.add_flag("--strict", options.strict, "Commit only when nothing was passed over")->excludes(commit);
    declareIdentity(app, options.identity, "The name that the computer gets");
    declareReport(app, options.report);
    declareJson(app, options.json);
}

void declare(CLI::App& app, CloneOptions& options) {
    app.add_option("GOLDEN", options.golden, "The image that the clones lie over")->required();
    app.add_option("NEW", options.clones, "The clones to be made, qcow2 files")->required();
    app.add_option(
           "--format", options.format,
           "GOLDEN's format: raw, qcow2, vmdk, vhdx, vhd, vdi or auto (what name and contents agree on)")
        ->envname("QUILLET_FORMAT")
        ->type_name("FORMAT");
    app.add_option("--jobs", options.jobs, "How many are made at a time (one for each processor)")
        ->transform(decimal)
        ->check(CLI::Range(1, 1000).description(""))
        ->type_name("N");
    declareIdentity(app, options.identity, "The computers' name, for several with a number: web-%02d");
    app.add_option("--first-number", options.firstNumber, "The number in the first one's name (1)")
        ->transform(decimal)
        ->check(CLI::Range(0, 99999999).description(""))
        ->type_name("N");
    app.add_flag("-v,--verbose", options.verbose, "Show what each run says on standard error");
    declareJson(app, options.json);
}

void declare(CLI::App& app, UndoOptions& options) {
    declareImages(app, options);
    app.add_option("--undo", options.file, "The undo file (the latest one beside the images)")
        ->check(refuseNoName)
        ->type_name("FILE");
    declareJson(app, options.json);
}

void declareProgress(CLI::App& app, std::string& word) {
    app.add_option("--progress", word, "Show how far it is, on standard error: always, auto or never (auto)")
        ->envname("QUILLET_PROGRESS")
        ->type_name("WHEN");
}

/* ---- The commands ---- */

struct Options {
    std::string progress = "auto";
    SampleOptions sample;
    InfoOptions info;
    AuditOptions audit;
    PlanOptions plan;
    RunOptions run;
    CloneOptions clone;
    UndoOptions undo;
};

struct Command {
    const char* name;
    const char* summary;
    const char* help; /* below the options in the command's help, with an example */
    void (*declare)(CLI::App& app, Options& options);
    int (*perform)(const Options& options, Results& results);
    bool takesRest = false; /* whether arguments after "--" are passed on */

    bool showsProgress() const {
        const std::string_view quick[] = {"info", "undo"};
        return std::find(std::begin(quick), std::end(quick), name) == std::end(quick);
    }
};

const Command commands[] = {
    {"sample", "Make a practice installation on a new disk image", sampleHelp,
     [](CLI::App& app, Options& options) { declare(app, options.sample); },
     [](const Options& options, Results&) { return sample(options.sample); }},
    {"info", "Show what is on an installation's disks", infoHelp,
     [](CLI::App& app, Options& options) { declare(app, options.info); },
     [](const Options& options, Results& results) { return info(options.info, results); }},
    {"audit", "Show where a machine's SID stands", auditHelp,
     [](CLI::App& app, Options& options) { declare(app, options.audit); },
     [](const Options& options, Results& results) { return audit(options.audit, results); }},
    {"plan", "Show what a run of quillet would change", planHelp,
     [](CLI::App& app, Options& options) { declare(app, options.plan); },
     [](const Options& options, Results& results) { return plan(options.plan, results); }, true},
    {"run", "Run quillet on an installation", runHelp,
     [](CLI::App& app, Options& options) { declare(app, options.run); },
     [](const Options& options, Results& results) { return run(options.run, results); }, true},
    {"clone", "Make linked clones, each with a machine SID of its own", cloneHelp,
     [](CLI::App& app, Options& options) { declare(app, options.clone); },
     [](const Options& options, Results& results) { return clone(options.clone, results); }, true},
    {"undo", "Take the latest run back", undoHelp,
     [](CLI::App& app, Options& options) { declare(app, options.undo); },
     [](const Options& options, Results& results) { return undo(options.undo, results); }},
};

const Command& commandNamed(const std::string& name) {
    for (const Command& command : commands) {
        if (name == command.name) return command;
    }
    throw Failure{"\"" + name + "\" is no command; see \"quillet-offline --help\""};
}

void declareAll(CLI::App& app, Options& options) {
    app.set_version_flag("--version", std::string("quillet-offline ") + QUILLET_VERSION,
                         "Print the version and exit");
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.require_subcommand(1);
    app.footer(programHelp);
    for (const Command& command : commands) {
        CLI::App* sub = app.add_subcommand(command.name, command.summary);
        sub->footer(command.help);
        command.declare(*sub, options);
        if (command.showsProgress()) declareProgress(*sub, options.progress);
    }
}

/* The library's text in the form of this program's errors: one line. */
std::string usageError(const CLI::ParseError& error, const std::string& command) {
    std::string text = error.what();
    while (!text.empty() && (text.back() == '\n' || text.back() == '.')) text.pop_back();
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text + "; see \"quillet-offline " + command + "--help\"";
}

/* The variable is no matter of commands that have no progress. */
offline::ProgressWish progressOf(const Command& command, const Options& options) {
    offline::ProgressWish wish = offline::ProgressWish::never;
    if (!command.showsProgress()) return wish;
    if (!offline::progressWishOf(options.progress, wish)) {
        throw Failure{"progress (--progress or QUILLET_PROGRESS) can't be \"" + options.progress +
                      "\"; say always, auto or never"};
    }
    return offline::quietAsked(options.run.quilletOptions) ? offline::ProgressWish::never : wish;
}

/* Takes what stands after "--" out of the arguments. False when there is no "--". */
bool takeRest(std::vector<std::string>& arguments, std::vector<std::string>& rest) {
    const auto split = std::find(arguments.begin(), arguments.end(), "--");
    if (split == arguments.end()) return false;
    rest.assign(split + 1, arguments.end());
    arguments.erase(split, arguments.end());
    return true;
}

} /* namespace */

int runCommandLine(std::vector<std::string> arguments, Results& results) {
    Options options;
    const bool restGiven = takeRest(arguments, options.run.quilletOptions);
    options.plan.quilletOptions = options.clone.quilletOptions = options.run.quilletOptions;
    results.json = std::find(arguments.begin(), arguments.end(), "--json") != arguments.end();
    if (arguments.empty()) throw Failure{"no command is given; see \"quillet-offline --help\""};
    const bool isOption = arguments.front().rfind('-', 0) == 0;
    if (!isOption) results.command = commandNamed(arguments.front()).name;
    const std::string name = isOption ? "" : results.command + ' ';
    std::reverse(arguments.begin(), arguments.end()); /* as the library wants them */

    CLI::App app{"Prepares, shows and changes Windows installations on disk images and block devices.",
                 "quillet-offline"};
    declareAll(app, options);
    try {
        app.parse(arguments);
    } catch (const CLI::Success& asked) { /* help or the version */
        results.json = false;
        return app.exit(asked);
    } catch (const CLI::ParseError& error) {
        throw Failure{usageError(error, name)};
    }
    const Command& chosen = commandNamed(app.get_subcommands().front()->get_name());
    if (restGiven && !chosen.takesRest) {
        throw Failure{std::string(chosen.name) + " takes no arguments after \"--\"; see \"quillet-offline " +
                      chosen.name + " --help\""};
    }
    const offline::ProgressLine progress(progressOf(chosen, options), results.json);
    return chosen.perform(options, results);
}

} /* namespace companion */
