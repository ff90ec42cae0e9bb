// Subcommand registry and argument parsing of the vaporix tool.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace vaporix::cli {

/// Exit statuses shared by all subcommands.
constexpr int EXIT_OK = 0;
constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;

/// An option: its name with dashes ("--json", "-o"), how many values follow it, and whether it
/// may be given more than once.
struct OptionSpec {
    std::string name;
    int valueCount = 0;
    bool repeatable = false;
};

/// The parsed command line of one subcommand.
class Args {
public:
    std::vector<std::string> positional;

    bool has(const std::string& name) const { return mValues.count(name) != 0; }
    /// Values of the last use of an option (empty when absent).
    const std::vector<std::string>& values(const std::string& name) const;
    /// The single value of an option, or `fallback`.
    std::string value(const std::string& name, const std::string& fallback = "") const;
    /// Every use of a repeatable option.
    const std::vector<std::vector<std::string>>& uses(const std::string& name) const;

    /// Parses argv[first..]; on a bad command line returns false with `error` set.
    bool parse(int argc, char** argv, int first, const std::vector<OptionSpec>& specs,
               std::string& error);

private:
    std::map<std::string, std::vector<std::vector<std::string>>> mValues;
};

/// Number parsing that rejects trailing garbage; false on a bad number.
bool parseInt(const std::string& s, long long& out);
bool parseFloat(const std::string& s, double& out);

using CommandFn = int (*)(int argc, char** argv);

struct Command {
    const char* name;
    const char* summary;
    CommandFn run;
};

/// Registers a subcommand at static initialisation; used through VAPORIX_COMMAND.
struct CommandRegistrar {
    CommandRegistrar(const char* name, const char* summary, CommandFn run);
};
std::vector<Command>& commands();

/// Prints "vaporix <cmd>: <message>" to stderr and returns EXIT_USAGE.
int usageError(const char* command, const std::string& message);
/// Prints "vaporix <cmd>: <message>" to stderr and returns EXIT_FAILED.
int failure(const char* command, const std::string& message);

}  // namespace vaporix::cli

#define VAPORIX_COMMAND(name, summary, fn) \
    static ::vaporix::cli::CommandRegistrar sRegistrar_##fn(name, summary, fn)
