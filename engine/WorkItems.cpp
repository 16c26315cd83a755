#include "engine/WorkItems.hpp"

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

bool holdsString(const Value& list, std::string_view text) {
    for (const auto& element : list.elements()) {
        if (element.isString() && element.text() == text) return true;
    }
    return false;
}

}  // namespace whittle
