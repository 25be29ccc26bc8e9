/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The command line: every option of every command, as the library parses it. The one file that knows the
 * library. */
#include "companion/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "companion/commands.h"
#include "companion/ending.h"
#include "companion/results/results.h"
#include "platform/offline/base/progress_line.h"
#include "platform/offline/main/call_tool.h"

namespace companion {
namespace {

/* ---- What the help says ---- */

const char programHelp[] =
    "Examples:\n"
    "  quillet-offline sample practice.img            a practice installation, to try things on\n"
    "  quillet-offline info practice.img              what is on it\n"
    "  quillet-offline plan practice.img              what quillet would change on it\n"
    "  quillet-offline run practice.img               quillet on it\n"
    "  quillet-offline undo practice.img              everything as it was before\n"
    "\n"
    "\"quillet-offline COMMAND --help\" tells more about a command.";

const char sampleHelp[] =
    "The image is an NTFS volume with the registry, profiles and files of a small Windows installation that\n"
    "name the accounts of one machine in many ways; nothing on it can be started. Needs the program mkntfs\n"
    "(package ntfs-3g). Prints the image, the machine's SID, and how many files and directories there are.\n"
    "\n"
    "Examples:\n"
    "  quillet-offline sample practice.img\n"
    "  quillet-offline sample disk.img --whole-disk gpt --size 256M --files 5000\n"
    "  quillet-offline sample same.img --machine S-1-5-21-1111-2222-3333 --force";

const char infoHelp[] =
    "Shows the disks, the volumes with their drive letters, the Windows installation, its machine SID and\n"
    "the state of its registry hives. Nothing is written. What is wrong goes to standard error, a line "
    "each.\n"
    "A hive that is \"logged\" has its last changes in its log files, from where they are read. A user's "
    "hive\n"
    "that is damaged or dirty is named; a run passes it over.\n"
    "The exit status is 0 for a system that quillet can work on, else 2.\n"
    "\n"
    "Examples:\n"
    "  quillet-offline info practice.img\n"
    "  quillet-offline info system.img data.img       one machine with two disks\n"
    "  quillet-offline info --json practice.img       for programs";

const char auditHelp[] =
    "Usage: quillet-offline audit [OPTIONS] IMAGE... [SID]\n"
    "\n"
    "Looks for a machine's SID, and for those of its accounts, in the security descriptors of files and "
    "keys,\n"
    "in names of keys and in values, and counts what quillet would rewrite and what it leaves alone by "
    "design.\n"
    "Nothing is written. SID is the machine's of the installation when none is given; after a run of "
    "quillet,\n"
    "give the one from before. What can't be looked at goes to standard error, a line each. The exit status "
    "is\n"
    "0 when nothing that quillet treats holds the SID, 1 when something does, 2 when not all could be seen.\n"
    "\n"
    "Examples:\n"
    "  quillet-offline audit practice.img\n"
    "  quillet-offline audit practice.img S-1-5-21-1111-2222-3333\n"
    "  quillet-offline audit --report disk.html practice.img\n"
    "  quillet-offline audit --all system.img data.img       every place, on one machine with two disks";

const char planHelp[] =
    "Usage: quillet-offline plan [OPTIONS] IMAGE... -- [quillet's options]\n"
    "\n"
    "The whole run of quillet, with whatever stands after \"--\", but nothing of it is written; then what "
    "it\n"
    "would change, by kind, and what it would leave alone and why. Works on a disk that can only be read.\n"
    "The new SID is not shown, for the run itself will make another. The exit status is the run's, 1 when "
    "the\n"
    "run would succeed but leave something that quillet treats, and 2 when not all could be seen.\n"
    "\n"
    "Examples:\n"
    "  quillet-offline plan practice.img\n"
    "  quillet-offline plan --report plan.html disk.img\n"
    "  quillet-offline plan -v system.img data.img    every place, on one machine with two disks";

const char runHelp[] =
    "Usage: quillet-offline run [OPTIONS] IMAGE... -- [quillet's options]\n"
    "\n"
    "Everything after \"--\" is passed to quillet; \"quillet -h\" tells its options. The exit status is\n"
    "quillet's. What the run changes is written at its end, all of it or nothing, and only when the run\n"
    "succeeded (status 0) unless --commit always is given. The undo file is kept beside the first image as\n"
    "IMAGE.quillet-undo, with a number when there is one already; \"quillet-offline undo\" takes the run "
    "back.\n"
    "--strict is for all or nothing with nothing passed over: where quillet names an object that it could "
    "not\n"
    "treat, nothing is written, and the exit status is 3 although the run's was 0. --verify reads the disks\n"
    "again when all is written; where something that quillet treats still holds the old SID the exit status "
    "is\n1 although the run's was 0, and 2 where not all could be looked at.\n"
    "\n"
    "Examples:\n"
    "  quillet-offline run practice.img -- -s         tells what would change; writes a new server GUID "
    "alone\n"
    "  quillet-offline run system.img data.img        one machine with two disks\n"
    "  quillet-offline run --strict --verify --report run.html system.img\n"
    "  quillet-offline run --computer-name web-7 --new all system.img\n"
    "  quillet-offline run --undo /safe/undo system.img";

const char cloneHelp[] =
    "Usage: quillet-offline clone [OPTIONS] GOLDEN NEW... -- [quillet's options]\n"
    "\n"
    "Each NEW is a qcow2 image over GOLDEN, which is only read and must not change as long as it has "
    "clones,\n"
    "with a run of quillet on it: a machine SID of its own, and on its disk only what that changed. A clone "
    "has\n"
    "its name when it is whole. Prints for each the file, the new SID, the time and the file's size, and "
    "the\n"
    "computer's name where one is given: for several clones with a number, counted from --first-number on.\n"
    "After\n"
    "\"--\" -f and -v may stand. The exit status is 0 when all were made, else 2; the others are made all "
    "the\n"
    "same when one fails.\n"
    "\n"
    "Examples:\n"
    "  quillet-offline clone golden.qcow2 alice.qcow2\n"
    "  quillet-offline clone --computer-name web-%02d --new all golden.img a.qcow2 b.qcow2\n"
    "  quillet-offline clone --jobs 4 golden.img lab-1.qcow2 lab-2.qcow2 lab-3.qcow2";

const char undoHelp[] =
    "Takes the latest run on the images back: every byte is again what it was before. Refused when anything\n"
    "of what the run wrote was changed since, as by a start of the system. A run that was cut off while it "
    "was\n"
    "written (power, a kill) is put right in the same way. Name all disks of the run. The exit status is 0\n"
    "when something was taken back, 1 when there is nothing to take back, 2 when it is refused or failed.\n"
    "\n"
    "Examples:\n"
    "  quillet-offline undo practice.img\n"
    "  quillet-offline undo --undo /safe/undo system.img";

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
    const char digits[] = "0123456789";
    const size_t end = std::min(word.find_first_not_of(digits), word.size());
    if (end == 0 || word.find_first_of(digits, end) != std::string::npos)
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
