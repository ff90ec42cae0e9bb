// Argument parsing and the subcommand registry.
#include "Command.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace vaporix::cli {

const std::vector<std::string>& Args::values(const std::string& name) const {
    static const std::vector<std::string> none;
    auto it = mValues.find(name);
    return it == mValues.end() || it->second.empty() ? none : it->second.back();
}

std::string Args::value(const std::string& name, const std::string& fallback) const {
    const auto& v = values(name);
    return v.empty() ? fallback : v.front();
}

const std::vector<std::vector<std::string>>& Args::uses(const std::string& name) const {
    static const std::vector<std::vector<std::string>> none;
    auto it = mValues.find(name);
    return it == mValues.end() ? none : it->second;
}

bool Args::parse(int argc, char** argv, int first, const std::vector<OptionSpec>& specs,
                 std::string& error) {
    for (int i = first; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.size() < 2 || arg[0] != '-' || arg == "--") {
            if (arg == "--") {
                for (++i; i < argc; ++i) positional.emplace_back(argv[i]);
                break;
            }
            positional.push_back(arg);
            continue;
        }
        const OptionSpec* spec = nullptr;
        for (const auto& s : specs)
            if (s.name == arg) spec = &s;
        if (!spec) {
            // A negative number is a value, not an option.
            double d;
            if (parseFloat(arg, d)) {
                positional.push_back(arg);
                continue;
            }
            error = "unknown option " + arg;
            return false;
        }
        if (i + spec->valueCount >= argc) {
            error = arg + " needs " + std::to_string(spec->valueCount) + " value(s)";
            return false;
        }
        if (!spec->repeatable && mValues.count(arg)) {
            error = arg + " given twice";
            return false;
        }
        std::vector<std::string> vals;
        for (int k = 0; k < spec->valueCount; ++k) vals.emplace_back(argv[++i]);
        mValues[arg].push_back(std::move(vals));
    }
    return true;
}

bool parseInt(const std::string& s, long long& out) {
    if (s.empty()) return false;
    errno = 0;
    char* end = nullptr;
    out = std::strtoll(s.c_str(), &end, 10);
    return errno == 0 && end && *end == '\0';
}

bool parseFloat(const std::string& s, double& out) {
    if (s.empty()) return false;
    errno = 0;
    char* end = nullptr;
    out = std::strtod(s.c_str(), &end);
    return errno == 0 && end && *end == '\0' && std::isfinite(out);
}

std::vector<Command>& commands() {
    static std::vector<Command> list;
    return list;
}

CommandRegistrar::CommandRegistrar(const char* name, const char* summary, CommandFn run) {
    commands().push_back({name, summary, run});
}

int usageError(const char* command, const std::string& message) {
    std::fprintf(stderr, "vaporix %s: %s (see vaporix %s --help)\n", command, message.c_str(),
                 command);
    return EXIT_USAGE;
}

int failure(const char* command, const std::string& message) {
    std::fprintf(stderr, "vaporix %s: %s\n", command, message.c_str());
    return EXIT_FAILED;
}

}  // namespace vaporix::cli
