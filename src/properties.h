#pragma once

#include <map>
#include <string>
#include <vector>

/// Reads one properties file with the same eyes as log4cpp, so that one file serves both the
/// service and its logging; docs/configuration.md has the syntax. A plain value.
class cProperties {
public:
    /// A line of the file that is neither empty nor a comment.
    struct Line {
        int number;         ///< from 1
        bool assigns;       ///< false without a '=': the line is ignored, key and value are empty
        std::string key;    ///< without a dropped prefix
        std::string value;  ///< after substitution
    };

    /// Replaces the content by that of the file. Returns false, and is then empty, if the file
    /// cannot be read to its end or holds a NUL byte.
    bool load(const char* path);

    /// The key's value, which may be "", or `default_value` (may be null) if the key is missing.
    /// A returned value stays valid while this object lives and is not loaded again.
    const char* getString(const char* key, const char* default_value) const;

    /// The key's value as an int, or `default_value` if the key is missing or its value is not a
    /// whole decimal number in the range of int.
    int getInt(const char* key, int default_value) const;

    /// The file's lines in order, those too that an earlier line with an equal key overrides.
    const std::vector<Line>& lines() const { return _lines; }

private:
    void clear();
    void parse_line(int number, const std::string& line);
    std::string substitute_variables(const std::string& text) const;

    std::map<std::string, std::string> _values;
    std::vector<Line> _lines;
};
