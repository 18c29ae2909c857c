// Command-line words split into positionals and options, and checked number parsing.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace cmsctl {

// Exit statuses: success, a failure reply or no reply, bad input.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

// Every word starting with "--", and the short "-o", takes the next word as its value,
// except the flags --help and -h. Other words are positionals, so "-5" is a number.
class Args {
public:
    // False with `error` set when an option lacks its value.
    bool Parse(int argc, char** argv, std::string& error);

    const std::vector<std::string>& Positional() const { return m_positional; }
    bool Has(const char* name) const;
    // The last value given for `name`, or null.
    const std::string* Get(const char* name) const;
    std::vector<std::string> All(const char* name) const;
    bool Help() const { return m_help; }
    // False with `error` naming the first option not in `allowed`.
    bool Only(const std::vector<const char*>& allowed, std::string& error) const;

private:
    std::vector<std::string> m_positional;
    std::vector<std::pair<std::string, std::string>> m_options;
    bool m_help = false;
};

// Whole-text decimal integer within [min, max]; false otherwise.
bool ParseInt(const std::string& text, long long min, long long max, long long& out);

// Reads option `name` as an integer in [min, max] into `out`. A missing option leaves `out`
// as it is and is an error only when `required`. False with `error` set on bad input.
template <class T>
bool IntOption(const Args& args, const char* name, long long min, long long max, T& out,
               bool required, std::string& error) {
    const std::string* text = args.Get(name);
    if (!text) {
        if (required) error = std::string("missing ") + name;
        return !required;
    }
    long long v = 0;
    if (!ParseInt(*text, min, max, v)) {
        error = std::string(name) + " wants a number from " + std::to_string(min) + " to " +
                std::to_string(max) + ", not '" + *text + "'";
        return false;
    }
    out = static_cast<T>(v);
    return true;
}

// A positional integer, with the same checks; `what` names it in the error.
bool IntArg(const std::string& text, const char* what, long long min, long long max, long long& out,
            std::string& error);

}  // namespace cmsctl
