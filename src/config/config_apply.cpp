// Applies the groups and lists of the configuration file to the model.
#include "appmodel/app_lists.h"
#include "config/config_file.h"
#include "config/config_members.h"

using am::forEachElement;
using am::objectMember;
using am::textMember;

void amParseGroupConfig(const cJSON *profile) {
    const cJSON *const groups = objectMember(profile, "avAppGroup");
    if (!groups) return;
    for (const cJSON *group = groups->child; group; group = group->next)
        forEachElement(group, [group](const cJSON &member) {
            if (cJSON_IsObject(&member)) (void)amAddAppToGrp(group->string, textMember(&member, "appName"));
        });
}

void amParseAppListConfig(const cJSON *listObject, uint32_t listType) {
    forEachElement(cJSON_GetObjectItem(listObject, "appList"), [listType](const cJSON &app) {
        if (cJSON_IsObject(&app)) (void)amAddAppToAppList(textMember(&app, "appName"), nullptr, listType);
    });
    forEachElement(cJSON_GetObjectItem(listObject, "appGroup"), [listType](const cJSON &group) {
        if (const char *const name = cJSON_GetStringValue(&group)) (void)amAddGrpToAppList(name, listType);
    });
}
