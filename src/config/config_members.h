// Members of the configuration file, each of which may be missing or of another type than expected.
#pragma once
#include <cjson/cJSON.h>

namespace am {

inline const char *textMember(const cJSON *object, const char *key) {
    return cJSON_GetStringValue(cJSON_GetObjectItem(object, key));
}

// A member that is an object, else null.
inline const cJSON *objectMember(const cJSON *object, const char *key) {
    const cJSON *const member = cJSON_GetObjectItem(object, key);
    return cJSON_IsObject(member) ? member : nullptr;
}

// Calls `apply` for every element of an array; anything but an array has none.
template <class Apply>
void forEachElement(const cJSON *array, Apply apply) {
    if (!cJSON_IsArray(array)) return;
    for (const cJSON *element = array->child; element; element = element->next) apply(*element);
}

}  // namespace am
