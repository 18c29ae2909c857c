#include "args.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace cmsctl {

namespace {

bool IsOption(const char* word) {
    return std::strncmp(word, "--", 2) == 0 || std::strcmp(word, "-o") == 0 ||
           std::strcmp(word, "-h") == 0;
}

}  // namespace

bool Args::Parse(int argc, char** argv, std::string& error) {
    for (int i = 1; i < argc; ++i) {
        const char* word = argv[i];
        if (!IsOption(word)) {
            m_positional.emplace_back(word);
        } else if (std::strcmp(word, "--help") == 0 || std::strcmp(word, "-h") == 0) {
            m_help = true;
        } else if (i + 1 >= argc) {
            error = std::string(word) + " needs a value";
            return false;
        } else {
            m_options.emplace_back(word, argv[++i]);
        }
    }
    return true;
}

bool Args::Has(const char* name) const { return Get(name) != nullptr; }

const std::string* Args::Get(const char* name) const {
    for (auto it = m_options.rbegin(); it != m_options.rend(); ++it)
        if (it->first == name) return &it->second;
    return nullptr;
}

std::vector<std::string> Args::All(const char* name) const {
    std::vector<std::string> values;
    for (const auto& option : m_options)
        if (option.first == name) values.push_back(option.second);
    return values;
}

bool Args::Only(const std::vector<const char*>& allowed, std::string& error) const {
    for (const auto& option : m_options) {
        auto known = [&](const char* a) { return option.first == a; };
        if (std::none_of(allowed.begin(), allowed.end(), known)) {
            error = "unknown option " + option.first;
            return false;
        }
    }
    return true;
}

bool ParseInt(const std::string& text, long long min, long long max, long long& out) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    long long v = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < min || v > max) return false;
    out = v;
    return true;
}

bool IntArg(const std::string& text, const char* what, long long min, long long max, long long& out,
            std::string& error) {
    if (ParseInt(text, min, max, out)) return true;
    error = std::string(what) + " wants a number from " + std::to_string(min) + " to " +
            std::to_string(max) + ", not '" + text + "'";
    return false;
}

}  // namespace cmsctl
