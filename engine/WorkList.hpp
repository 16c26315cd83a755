// Running an engine's work list and the name lists both engines answer with.
#pragma once

#include <set>
#include <string>

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
        result = operation(engine, item);
        if (result != 0) return result;
    }
    return result;
}

// A device class without its "ap" or "dev" ending (compared without regard to case).
std::string productOfDeviceClass(const std::string& deviceClass);

// Names as an array, sorted without regard to case.
Value sortedNames(const std::set<std::string>& names);

}  // namespace whittle
