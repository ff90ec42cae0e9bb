// Entry point of the vaporix tool: dispatches to the registered subcommands.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "CacheArg.h"
#include "Command.h"
#include "foundation/log.h"

using namespace vaporix::cli;

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
