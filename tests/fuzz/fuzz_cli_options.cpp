// libFuzzer target: the option parser of the command-line tool. The input is an argument list
// (NUL-separated) for a fixed set of options of every kind: flags, options with one and two
// values, repeatable ones; then number parsing of every argument.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "Command.h"

using namespace vaporix::cli;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 4096) return 0;
    std::vector<std::string> words = {"vaporix", "cmd"};
    std::string current;
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0) {
            words.push_back(current);
            current.clear();
        } else {
            current.push_back(static_cast<char>(data[i]));
        }
    }
    words.push_back(current);
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);

    static const std::vector<OptionSpec> specs = {
        {"--json", 0, false}, {"-q", 0, false},      {"-o", 1, false},
        {"--frames", 1, false}, {"--set", 2, true},  {"--layer", 1, true},
        {"--yes", 0, false},  {"--size", 2, false},
    };
    Args args;
    std::string error;
    const bool ok = args.parse(static_cast<int>(words.size()), argv.data(), 2, specs, error);
    if (ok == !error.empty()) std::abort();
    if (ok) {
        for (const OptionSpec& s : specs) {
            if (!args.has(s.name)) continue;
            if (static_cast<int>(args.values(s.name).size()) != s.valueCount) std::abort();
            const auto& uses = args.uses(s.name);
            if (!s.repeatable && uses.size() != 1) std::abort();
            args.value(s.name, "x");
        }
        if (args.positional.size() > words.size()) std::abort();
    }
    for (const std::string& w : words) {
        long long i;
        double d;
        parseInt(w, i);
        parseFloat(w, d);
    }
    return 0;
}
