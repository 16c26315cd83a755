#include "support/PrettyPrinter.hpp"

namespace whittle {

namespace {

void emit(PrettyPrintContext& context, const std::string& text) {
    if (context.stream) std::fwrite(text.data(), 1, text.size(), context.stream);
    if (context.output) context.output->append(text);
}

bool isContainer(const Value& value) { return value.isArray() || value.isDictionary(); }

void prettyPrintEntry(const std::string& keyText, const Value* value, PrettyPrintContext& context) {
    std::string line;
    for (int level = 0; level < context.depth; ++level) line += context.indent;
    line += keyText;
    if (!value) {
        emit(context, line + "\n");
        return;
    }
    if (!keyText.empty()) line += ":";
    if (isContainer(*value)) {
        emit(context, line + "\n");
        PrettyPrintContext child{context.depth + 1, 0, context.indent, context.stream, context.output};
        prettyPrintWalk(*value, child);
        return;
    }
    if (!keyText.empty()) line += " ";
    auto text = describeForPrettyPrint(*value);
    line += text ? *text : std::string("(NULL)");
    emit(context, line + "\n");
}

}  // namespace

std::optional<std::string> describeForPrettyPrint(const Value& value) {
    if (const auto* data = value.asData()) {
        static const char* hex = "0123456789ABCDEF";
        std::string text = "0x";
        text.reserve(2 * data->bytes.size() + 3);
        for (unsigned char byte : data->bytes) {
            text += hex[byte >> 4];
            text += hex[byte & 0xF];
        }
        return text;
    }
    std::string text = value.description();
    if (text.empty() && !value.isNone() && !value.isString()) return "<error getting string representation>";
    return text;
}

void prettyPrintWalk(const Value& value, PrettyPrintContext& context) {
    if (const auto* dict = value.asDictionary()) {
        for (const auto& [key, element] : *dict) {
            prettyPrintEntry(*describeForPrettyPrint(Value::string(key)), &element, context);
        }
    } else if (const auto* array = value.asArray()) {
        for (const auto& element : *array) {
            prettyPrintEntry(std::to_string(context.index), &element, context);
            ++context.index;
        }
    } else {
        auto text = describeForPrettyPrint(value);
        prettyPrintEntry(text ? *text : std::string("(NULL)"), nullptr, context);
    }
}

std::string prettyPrintToString(const Value& value, const char* indent) {
    std::string output;
    PrettyPrintContext context{0, 0, indent, nullptr, &output};
    prettyPrintWalk(value, context);
    return output;
}

void prettyPrint(const Value& value, FILE* stream, const char* indent) {
    PrettyPrintContext context{0, 0, indent, stream, nullptr};
    prettyPrintWalk(value, context);
}

void prettyPrint(const Value& value) { prettyPrint(value, stderr, "\t"); }
void prettyPrint(const Value& value, FILE* stream) { prettyPrint(value, stream, "\t"); }
void prettyPrint(const Value& value, const char* indent) { prettyPrint(value, stderr, indent); }

}  // namespace whittle
