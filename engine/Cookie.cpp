// "WhittleCookie.plist": how a stripped bundle was made.
#include "engine/Cookie.hpp"

#include <string>

#include "support/Format.hpp"
#include "support/Helpers.hpp"
#include "support/ProcessInfo.hpp"

namespace whittle {

namespace {

std::string withoutNewlines(std::string text) {
    std::erase(text, '\n');
    return text;
}

}  // namespace

Value makeCookie(const std::string& source, const Value& options) {
    Value cookie = Value::dictionary();
    cookie.set("rawArguments", Value::stringArray(processArguments()));
    cookie.set("source", Value::string(source));
    Value toolName = options.get("toolName");
    Value toolVersion = options.get("toolVersion");
    if (!toolVersion.isNone()) cookie.set("version", Value::string(format("%f", toolVersion.numberValue())));
    if (!toolName.isNone()) {
        cookie.set("version_fullString", Value::string(withoutNewlines(
                                             format("%@ -- Version %@, built %s %s", toolName, toolVersion, buildDate(), buildTime()))));
    }
    return cookie;
}

}  // namespace whittle
