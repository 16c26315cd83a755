// Running an engine's work list and the name lists both engines answer with.
#pragma once

#include <map>
#include <set>
#include <span>
#include <string>
#include <string_view>

#include "support/Helpers.hpp"
#include "support/LogObject.hpp"
#include "support/Value.hpp"

namespace whittle {

// Runs the items in order: each item's banner, then the engine operation its
// "workSelector" names; the first non-zero result ends the run and is answered.
template <typename Engine>
int runWorkList(Engine& engine, const Value& workList) {
    const auto& items = workList.elements();
    int result = 0;
    for (std::size_t i = 0; i < items.size(); ++i) {
        const Value& item = items[i];
        Log(">>> ========== %2d/%2d %@ ==========", i + 1, items.size(), item.get("workName"));
        auto operation = Engine::operationNamed(item.get("workSelector").text());
        if (!operation) {
            Log("XXX ERROR: no operation %@.", item.get("workSelector"));
            return 1;
        }
        result = (engine.*operation)(item);
        if (result != 0) return result;
    }
    return result;
}

template <typename Engine>
using OperationTable = std::map<std::string_view, int (Engine::*)(const Value&)>;

// The selectors both engines answer with an operation of the same name: the support-file
// steps and the closing steps they share. Each engine adds its own.
template <typename Engine>
OperationTable<Engine> sharedOperations() {
    return {
        {"stripCommonWork:", &Engine::stripCommonWork},
        {"stripInvisibles:", &Engine::stripInvisibles},
        {"leaveCookie:", &Engine::leaveCookie},
        {"stripRestoreFirmwareDeviceMapDotTxt:", &Engine::stripRestoreFirmwareDeviceMapDotTxt},
        {"stripRestoreFirmwareDeviceMapDotPlist:", &Engine::stripRestoreFirmwareDeviceMapDotPlist},
        {"stripRestoreFirmwareTargetMapDotTxt:", &Engine::stripRestoreFirmwareTargetMapDotTxt},
        {"stripRestoreFirmwarePlatformKeysDotPlist:", &Engine::stripRestoreFirmwarePlatformKeysDotPlist},
        {"stripFWPKs:", &Engine::stripFWPKs},
        {"stripDebugFolder:", &Engine::stripDebugFolder},
        {"stripHomeDiags:", &Engine::stripHomeDiags},
        {"stripSDKs:", &Engine::stripSDKs},
        {"stripBundleImages:", &Engine::stripBundleImages},
        {"stripRestoreTools:", &Engine::stripRestoreTools},
    };
}

// The operation the selector names in the table, or nullptr.
template <typename Engine>
int (Engine::*operationIn(const OperationTable<Engine>& table, std::string_view selector))(const Value&) {
    auto found = table.find(selector);
    return found == table.end() ? nullptr : found->second;
}

// Runs the steps the selectors name, in order, each on its own copy of the item; the
// first non-zero result ends the run and is answered.
template <typename Engine>
int runSteps(Engine& engine, std::span<const char* const> selectors, const Value& item) {
    int result = 0;
    for (const char* selector : selectors) {
        Value copy = Value::dictionary(*item.asDictionary());
        result = (engine.*Engine::operationNamed(selector))(copy);
        if (result != 0) return result;
    }
    return result;
}

// A device class without its "ap" or "dev" ending (compared without regard to case).
std::string productOfDeviceClass(const std::string& deviceClass);

// Names as an array, sorted without regard to case.
Value sortedNames(const std::set<std::string>& names);

}  // namespace whittle
