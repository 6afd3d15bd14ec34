// scenario_json.cpp - a light scan of a scenario file's text for the lines of
// its fields: it knows strings, comments and nesting and nothing else, since
// the JSON parser has already judged the text.
#include "scenario_json.h"

#include "parse.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <cstdint>
#include <vector>

namespace korvanel::tool {

std::string pointer_token(const std::string& key)
{
    std::string out;
    for (char c : key) {
        out += c == '~' ? "~0" : c == '/' ? "~1" : std::string(1, c);
    }
    return out;
}

std::map<std::string, int> field_lines(const std::string& text, std::vector<DuplicateKey>* duplicates,
                                       TextProblem* problem)
{
    struct Frame {
        std::string path;
        bool object;
        size_t index = 0;
        bool want_key = true;     // object: the next string is a key
        bool recorded = false;    // array: element `index` has its line
        std::string key = {};     // object: the member being read
    };
    std::map<std::string, int> lines;
    std::vector<Frame> stack;
    int line = 1;
    // The path of the value starting here, recorded when it is an element.
    auto value_path = [&]() -> std::string {
        if (stack.empty()) {
            return "";
        }
        Frame& f = stack.back();
        if (f.object) {
            return f.path + "/" + pointer_token(f.key);
        }
        std::string path = f.path + "/" + std::to_string(f.index);
        if (!f.recorded) {
            lines.emplace(path, line);
            f.recorded = true;
        }
        return path;
    };
    for (size_t i = 0; i < text.size(); i++) {
        char c = text[i];
        if (c == '\n') {
            line++;
        } else if (c == '/' && i + 1 < text.size() && text[i + 1] == '/') {
            while (i + 1 < text.size() && text[i + 1] != '\n') {
                i++;
            }
        } else if (c == '/' && i + 1 < text.size() && text[i + 1] == '*') {
            for (i += 2; i + 1 < text.size() && !(text[i] == '*' && text[i + 1] == '/'); i++) {
                line += text[i] == '\n';
            }
            i++;
        } else if (c == '"') {
            std::string s;
            for (i++; i < text.size() && text[i] != '"'; i++) {
                if (text[i] == '\\' && i + 1 < text.size()) {
                    i++;
                    // Keys with escapes other than these are not looked up.
                    s += text[i] == 'n' ? '\n' : text[i] == 't' ? '\t' : text[i];
                } else {
                    s += text[i];
                }
            }
            if (!stack.empty() && stack.back().object && stack.back().want_key) {
                stack.back().key = s;
                stack.back().want_key = false;
                std::string key_path = stack.back().path + "/" + pointer_token(s);
                if (auto [at, added] = lines.emplace(key_path, line); !added && duplicates != nullptr) {
                    duplicates->push_back({key_path, at->second, line});
                }
            } else {
                value_path();
            }
        } else if (c == '{' || c == '[') {
            std::string path = value_path();
            if (problem != nullptr && stack.size() >= kNestingLimit) {
                // Where in so deep a value is no help: the line is.
                *problem = {line, "", "values nested deeper than " + std::to_string(kNestingLimit) + " levels"};
                return lines;
            }
            stack.push_back({path, c == '{'});
        } else if (c == '}' || c == ']') {
            if (!stack.empty()) {
                stack.pop_back();
            }
        } else if (c == ',') {
            if (!stack.empty()) {
                Frame& f = stack.back();
                f.want_key = f.object;
                f.recorded = false;
                f.index += f.object ? 0 : 1;
            }
        } else if (c == '-' || isdigit(uint8_t(c))) {
            std::string path = value_path();
            size_t end = i;
            while (end < text.size() && strchr("0123456789+-.eE", text[end]) != nullptr) {
                end++;
            }
            std::string number = text.substr(i, end - i);
            i = end - 1;
            if (problem != nullptr && !std::isfinite(strtod(number.c_str(), nullptr))) {
                *problem = {line, path, "the number " + excerpt(number) +
                                            " is beyond any number a field takes (a double holds at most 1.8e308)"};
                return lines;
            }
        } else if (c != ':' && !isspace(uint8_t(c))) {
            value_path();  // true, false or null
        }
    }
    return lines;
}

int line_of(const std::map<std::string, int>& lines, const std::string& pointer)
{
    for (std::string path = pointer; !path.empty(); path = path.substr(0, path.rfind('/'))) {
        if (auto it = lines.find(path); it != lines.end()) {
            return it->second;
        }
    }
    return 1;
}

int line_at(const std::string& text, size_t offset)
{
    size_t at = std::min(offset, text.size());
    return 1 + int(std::count(text.begin(), text.begin() + ptrdiff_t(at), '\n'));
}

std::string field_name(const std::string& pointer)
{
    auto tokens = split(pointer.substr(pointer.empty() ? 0 : 1), '/');
    std::string step;
    size_t first = 0;
    auto index = tokens.size() >= 2 && tokens[0] == "steps" ? parse_integer(tokens[1], 0, INT32_MAX) : std::nullopt;
    if (index) {
        step = "step " + std::to_string(*index + 1) + ": ";
        first = 2;
    }
    std::string out;
    for (size_t i = first; i < tokens.size(); i++) {
        std::string key;
        for (size_t c = 0; c < tokens[i].size(); c++) {  // undo pointer_token()
            bool escaped = tokens[i][c] == '~' && c + 1 < tokens[i].size();
            key += escaped ? (tokens[i][++c] == '1' ? '/' : '~') : tokens[i][c];
        }
        bool index = !key.empty() && std::all_of(key.begin(), key.end(), ::isdigit);
        out += index ? "[" + key + "]" : (out.empty() ? "" : ".") + key;
    }
    return step + (out.empty() ? "" : "field \"" + out + "\": ");
}

}  // namespace korvanel::tool
