// "WhittleCookie.plist": how a stripped bundle was made.
#include "engine/Cookie.hpp"

#include <string>

#include "engine/Stripper3.hpp"
#include "support/Helpers.hpp"
#include "support/LogObject.hpp"
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

int Stripper3::leaveCookie(const Value&) {
    if (option("noCookie")) return 0;
    Log("+++ Oreo's left.  No milk.");
    modifiedFilelist_.set("WhittleCookie.plist", makeCookie(bundleRoot_, stripOptions_));
    return 0;
}

}  // namespace whittle
