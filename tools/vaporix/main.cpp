// Entry point of the vaporix tool: dispatches to the registered subcommands.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "CacheArg.h"
#include "Command.h"
#include "foundation/log.h"

using namespace vaporix::cli;

#if defined(__SANITIZE_ADDRESS__)
// Sanitized builds only. The side modules bring libraries with dynamic thread-local storage
// (HDF5, TBB); the leak checker of this toolchain can crash at exit while walking such blocks
// once pool threads have gone, so it does not scan thread-local storage as roots; what lives
// only there (the C library's blocks for it and for libraries it opened, HDF5's per-thread error stacks) is not a leak.
extern "C" const char* __lsan_default_options() { return "use_tls=0:print_suppressions=0"; }
extern "C" const char* __lsan_default_suppressions() {
    return "leak:__tls_get_addr\nleak:add_to_global_resize\nleak:libhdf5_serial.so\n";
}
#endif

namespace {

void printUsage(FILE* out) {
    std::fprintf(out, "usage: vaporix <command> [options]\n\ncommands:\n");
    auto list = commands();
    std::sort(list.begin(), list.end(),
              [](const Command& a, const Command& b) { return std::strcmp(a.name, b.name) < 0; });
    for (const auto& c : list) std::fprintf(out, "  %-10s %s\n", c.name, c.summary);
    std::fprintf(out, "\nRun 'vaporix <command> --help' for the options of a command.\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        printUsage(stderr);
        return EXIT_USAGE;
    }
    const std::string name = argv[1];
    if (name == "--help" || name == "-h" || name == "help") {
        printUsage(stdout);
        return EXIT_OK;
    }
    // User messages of the library become stderr lines.
    vaporix::setMessageHandler([](const std::string& title, const std::string& text, int) {
        std::fprintf(stderr, "%s: %s\n", title.c_str(), text.c_str());
        return false;
    });
    // Foreign caches (.vdb, .f3d) read through the side modules beside the tool.
    loadToolSideModules();
    for (const auto& c : commands())
        if (name == c.name) return c.run(argc, argv);
    std::fprintf(stderr, "vaporix: unknown command '%s'\n", name.c_str());
    printUsage(stderr);
    return EXIT_USAGE;
}
