// scenario_json.h - where things are in a scenario file's text: the line of
// every field by JSON pointer, and the way messages name a field. The JSON
// parser reads the values; this finds the lines it does not keep.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace korvanel::tool {

// A key as one token of a JSON pointer ("a/b" is "a~1b").
std::string pointer_token(const std::string& key);

// A key given twice in one object: the JSON parser keeps the second silently.
struct DuplicateKey {
    std::string pointer;
    int first_line;
    int second_line;
};

// What is refused before the JSON parser reads a text: values nested deeper
// than kNestingLimit (a file of a hundred thousand '[' would cost the parser,
// and every reader after it, time and stack for nothing), and a number beyond
// what a double holds (1e400), which the parser cannot keep.
constexpr size_t kNestingLimit = 64;
struct TextProblem {
    int line = 0;
    std::string pointer;
    std::string message;
};

// The line of every member and array element, by JSON pointer ("/steps/3/
// expect"), in a text with comments; with `duplicates`, every key given
// again in its object. With `problem`, the scan stops at the first nesting
// or number it refuses and says why there; the rest of the text is left to
// the JSON parser to judge.
std::map<std::string, int> field_lines(const std::string& text, std::vector<DuplicateKey>* duplicates = nullptr,
                                       TextProblem* problem = nullptr);

// The line of the field at `pointer`, or of its nearest enclosing field that
// has one; 1 when none has.
int line_of(const std::map<std::string, int>& lines, const std::string& pointer);

// The line holding byte `offset` of `text`, counted from 1.
int line_at(const std::string& text, size_t offset);

// Where a field is, for people: "step 4: field \"expect.status\": " for
// "/steps/3/expect/status", "field \"device.registry.MipiLanes\": " elsewhere,
// nothing for the whole document.
std::string field_name(const std::string& pointer);

}  // namespace korvanel::tool
