/* run: quillet on the installation of some disks. */
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "companion/commands.h"
#include "companion/ending.h"
#include "companion/formatting.h"
#include "companion/opened.h"
#include "platform/offline/system/system.h"

namespace companion {
namespace {

/* The value of QUILLET_SYSTEM for these disks. */
std::string systemVariable(const std::vector<std::string>& images) {
    for (const std::string& image : images) {
        if (image.empty()) throw Failure{"the name of a disk is empty; name an image file or a block device"};
    }
    return offline::systemText(images);
}

/* The program beside this one, else the one on PATH. */
std::string quilletProgram() {
    std::error_code unreadable;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", unreadable);
    if (!unreadable) {
        std::string beside = self.parent_path() / "quillet";
        if (access(beside.c_str(), X_OK) == 0) return beside;
    }
    return "quillet";
}

/* The value of QUILLET_UNDO. */
std::string undoVariable(const RunOptions& options) {
    if (options.noUndo) return "";
    return options.undoFile.empty() ? "auto" : absolutePath(options.undoFile);
}

void setVariable(const char* name, const std::string& value) {
    if (setenv(name, value.c_str(), 1) != 0) throw std::bad_alloc();
}

} /* namespace */

int run(const RunOptions& options) {
    const std::string system = systemVariable(options.images);
    static_cast<void>(namedDisks(options.images, options.format)); /* whether it is right */
    const std::string program = quilletProgram();
    setVariable("QUILLET_SYSTEM", system);
    setVariable("QUILLET_FORMAT", options.format);
    setVariable("QUILLET_COMMIT", options.commit);
    setVariable("QUILLET_UNDO", undoVariable(options));
    std::vector<char*> arguments = {const_cast<char*>("quillet")};
    for (const std::string& option : options.quilletOptions)
        arguments.push_back(const_cast<char*>(option.c_str()));
    arguments.push_back(nullptr);
    execvp(program.c_str(), arguments.data());
    throw Failure{program + ": can't be started: " + strerror(errno) +
                  "; put quillet beside quillet-offline or on PATH"};
}

} /* namespace companion */
