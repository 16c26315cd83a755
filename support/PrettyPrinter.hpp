// A structured dump of a property-list value, one entry a line:
// dictionary entries as "key: value", array elements as "index: value", nested
// containers on the lines after their key, one indent unit deeper; data as "0x" and
// upper-case hexadecimal.
#pragma once

#include <cstdio>
#include <optional>
#include <string>

#include "support/Value.hpp"

namespace whittle {

struct PrettyPrintContext {
    int depth = 0;
    int index = 0;
    const char* indent = "\t";
    FILE* stream = nullptr;
    std::string* output = nullptr;
};

// One value's text: data as "0x" and hex digits, anything else as "%@" prints it.
std::optional<std::string> describeForPrettyPrint(const Value& value);
void prettyPrintWalk(const Value& value, PrettyPrintContext& context);

std::string prettyPrintToString(const Value& value, const char* indent);
void prettyPrint(const Value& value);
void prettyPrint(const Value& value, FILE* stream, const char* indent);
void prettyPrint(const Value& value, FILE* stream);
void prettyPrint(const Value& value, const char* indent);

}  // namespace whittle
