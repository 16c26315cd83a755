#include "engine/WorkItems.hpp"

#include "support/LogObject.hpp"

namespace whittle {

Value copyWith(const Value& base, std::initializer_list<std::pair<const char*, Value>> entries) {
    Value item = Value::dictionary(*base.asDictionary());
    for (const auto& [key, value] : entries) item.set(key, value);
    return item;
}

void setIfPresent(Value& item, const char* key, const Value& value) {
    if (!value.isNone()) item.set(key, value);
}

Value asList(const Value& value) {
    if (value.isNone() || value.isArray()) return value;
    return Value::array({value});
}

void appendClosingSteps(Value& workList, const Value& base, std::span<const ClosingStep> steps) {
    static const ClosingStep finalSteps[] = {
        {"Strip invisibles", "stripInvisibles:"},
        {"Leaving cookie for Santa", "leaveCookie:"},
    };
    for (auto ownOrFinal : {steps, std::span<const ClosingStep>(finalSteps)}) {
        for (const auto& step : ownOrFinal) {
            workList.append(
                copyWith(base, {{"workName", Value::string(step.name)}, {"workSelector", Value::string(step.selector)}}));
        }
    }
}

void logWorkList(const Value& workList) {
    Log(">>> Work List");
    LogObject::sharedLogger().PrettyPrint(workList);
}

bool holdsString(const Value& list, std::string_view text) {
    if (list.isSet()) return list.setContains(Value::string(std::string(text)));
    for (const auto& element : list.elements()) {
        if (element.isString() && element.text() == text) return true;
    }
    return false;
}

}  // namespace whittle
