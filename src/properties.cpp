#include "properties.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>

namespace {

std::string trim(const std::string& text)
{
    const char* const blanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) {
        return "";
    }
    return text.substr(first, text.find_last_not_of(blanks) + 1 - first);
}

std::string without_logging_prefix(const std::string& key)
{
    for (const std::string prefix : {"log4cpp.", "log4j."}) {
        if (key.compare(0, prefix.size(), prefix) == 0) {
            return key.substr(prefix.size());
        }
    }
    return key;
}

}  // namespace

bool cProperties::load(const char* path)
{
    clear();
    std::ifstream file(path);
    if (!file) {
        return false;
    }
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        if (line.find('\0') != std::string::npos) {
            clear();
            return false;
        }
        parse_line(number, line);
    }
    if (file.bad()) {  // a directory opens, but cannot be read
        clear();
        return false;
    }
    return true;
}

const char* cProperties::getString(const char* key, const char* default_value) const
{
    const auto found = _values.find(key);
    return found == _values.end() ? default_value : found->second.c_str();
}

int cProperties::getInt(const char* key, int default_value) const
{
    const char* text = getString(key, "");
    char* end;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    const bool whole = end != text && *end == '\0';
    if (!whole || errno == ERANGE || value < INT_MIN || value > INT_MAX) {
        return default_value;
    }
    return static_cast<int>(value);
}

void cProperties::clear()
{
    _values.clear();
    _lines.clear();
}

void cProperties::parse_line(int number, const std::string& line)
{
    const std::string text = trim(line.substr(0, line.find('#')));
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos) {
        if (!text.empty()) {
            _lines.push_back({number, false, "", ""});
        }
        return;
    }
    const std::string key = without_logging_prefix(trim(text.substr(0, equals)));
    const std::string value = substitute_variables(trim(text.substr(equals + 1)));
    _lines.push_back({number, true, key, value});
    // emplace leaves an earlier entry alone: the first of two equal keys wins.
    _values.emplace(key, value);
}

/// Replaces each ${NAME} by the environment's value, else by an earlier key's, else by nothing.
/// What was put in is not looked at again; "${${}" stands for a plain "${".
std::string cProperties::substitute_variables(const std::string& text) const
{
    std::string result;
    std::size_t begin = 0;
    for (;;) {
        const std::size_t open = text.find("${", begin);
        const std::size_t close = open == std::string::npos ? open : text.find('}', open + 2);
        if (close == std::string::npos) {
            return result + text.substr(begin);
        }
        result += text.substr(begin, open - begin);
        const std::string name = text.substr(open + 2, close - open - 2);
        if (name == "${") {
            result += name;
        } else if (const char* value = std::getenv(name.c_str())) {
            result += value;
        } else {
            result += getString(name.c_str(), "");
        }
        begin = close + 1;
    }
}
