// Writes the configuration file from the groups, the active array and the administrative state.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "appmodel/app_lists.h"
#include "appmodel/app_pool.h"
#include "config/config_file.h"
#include "config/file_before.h"
#include "config/replace_file.h"
#include "core/handle.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/text.h"
#include "flows/mirroring.h"

constinit int32_t reloadSignFile = 0;

namespace {

// What tells one configuration from the next.
struct Mark {
    uint32_t modelChanges;
    int32_t reloadSignFile;
    int adminState;
    bool operator==(const Mark &) const = default;
};
constinit Mark saved{};

Mark mark() {
    return {amModelChanges, reloadSignFile, amAdminState.load(std::memory_order_relaxed)};
}

}  // namespace

bool am::configChanged() {
    return !(mark() == saved);
}

void am::noteConfigInFile() {
    saved = mark();
}

namespace {

using Json = std::unique_ptr<cJSON, am::Closer<cJSON_Delete>>;

// Members are added through these: they take ownership in every case, and without memory there is no half
// configuration.
bool addMember(cJSON *object, const char *key, cJSON *member) {
    if (member && cJSON_AddItemToObject(object, key, member)) return true;
    cJSON_Delete(member);
    return false;
}

bool addElement(cJSON *array, cJSON *element) {
    if (element && cJSON_AddItemToArray(array, element)) return true;
    cJSON_Delete(element);
    return false;
}

// The text of a name field that may fill its width.
template <size_t N>
struct Terminated {
    char text[N + 1] = {};
    explicit Terminated(const char (&field)[N]) { am::copyText(text, am::fieldText(field)); }
};

cJSON *oneTextObject(const char *key, const char *text) {
    Json object(cJSON_CreateObject());
    if (!object || !addMember(object.get(), key, cJSON_CreateString(text))) return nullptr;
    return object.release();
}

template <size_t N>
bool addApplication(cJSON *array, const char (&name)[N]) {
    return addElement(array, oneTextObject("appName", Terminated(name).text));
}

const AmAppGrp *firstGroup() {
    return reinterpret_cast<const AmAppGrp *>(rbtFirst(&amAppGrpTree));
}
const AmAppGrp *nextGroup(const AmAppGrp *group) {
    return reinterpret_cast<const AmAppGrp *>(rbtNext(&amAppGrpTree, &group->node));
}

cJSON *groupMembers(const AmAppGrp &group) {
    Json members(cJSON_CreateArray());
    if (!members) return nullptr;
    for (const RbtNode *node = rbtFirst(&group.members); node; node = rbtNext(&group.members, node))
        if (!addApplication(members.get(), reinterpret_cast<const GrpElement *>(node)->name)) return nullptr;
    return members.release();
}

// A list's flag, in an entry of the array and in a group.
struct SavedList {
    uint8_t AmActiveApp::*ofApp;
    uint8_t AmAppGrp::*ofGroup;
};
constexpr SavedList kSavedMonitoring{&AmActiveApp::isMonitoring, &AmAppGrp::isMonitoring};
constexpr SavedList kSavedEnforcement{&AmActiveApp::isEnforcement, &AmAppGrp::isEnforcement};

bool coveredByGroup(const AmActiveApp &app, const SavedList &list) REQUIRES_SHARED(amModelLock) {
    if (!app.isPartOfGroup) return false;
    const AmAppGrp *const group = amFindGrpNode(&amAppGrpTree, Terminated(app.grpName).text);
    return group && group->*list.ofGroup;
}

cJSON *listApplications(const SavedList &list) {
    Json applications(cJSON_CreateArray());
    if (!applications) return nullptr;
    amModelLock.soleWriterReads();
    for (uint32_t appId = 0; appId < amMaxAppIdCount; appId++) {
        const AmActiveApp *const app = amActiveApp(appId);
        if (!app || !(app->*list.ofApp) || coveredByGroup(*app, list)) continue;
        if (!addApplication(applications.get(), app->appName)) return nullptr;
    }
    return applications.release();
}

cJSON *listGroups(const SavedList &list) {
    Json groups(cJSON_CreateArray());
    if (!groups) return nullptr;
    for (const AmAppGrp *group = firstGroup(); group; group = nextGroup(group))
        if (group->*list.ofGroup &&
            !addElement(groups.get(), cJSON_CreateString(Terminated(group->grpName).text)))
            return nullptr;
    return groups.release();
}

cJSON *listConfig(const SavedList &list) {
    Json object(cJSON_CreateObject());
    if (!object || !addMember(object.get(), "appList", listApplications(list)) ||
        !addMember(object.get(), "appGroup", listGroups(list)))
        return nullptr;
    return object.release();
}

cJSON *profileConfig() {
    Json profile(cJSON_CreateObject());
    if (!profile) return nullptr;
    cJSON *const object = profile.get();
    const bool enabled = amAdminState.load(std::memory_order_relaxed) == 1;
    if (reloadSignFile &&
        !addMember(object, "appMonUpdateSignatureFile", oneTextObject("reloadSignFile", "force")))
        return nullptr;
    if (!addMember(object, "avAppGroup", amWriteGroupConfig()) ||
        !addMember(object, "avAppMonAppList", amWriteMonitorConfig()) ||
        !addMember(object, "avDpiAppList", amWriteEnforcementConfig()) ||
        !addMember(object, "appMonAdminState", oneTextObject("adminState", enabled ? "enable" : "disable")))
        return nullptr;
    return profile.release();
}

cJSON *wholeConfig() {
    Json root(cJSON_CreateObject());
    Json profiles(cJSON_CreateArray());
    if (!root || !profiles || !addElement(profiles.get(), profileConfig())) return nullptr;
    if (!addMember(root.get(), "ApplicationVisbilityProfile", profiles.release())) return nullptr;
    return root.release();
}

}  // namespace

cJSON *amWriteGroupConfig() {
    Json groups(cJSON_CreateObject());
    if (!groups) return nullptr;
    for (const AmAppGrp *group = firstGroup(); group; group = nextGroup(group))
        if (!addMember(groups.get(), Terminated(group->grpName).text, groupMembers(*group))) return nullptr;
    return groups.release();
}

cJSON *amWriteMonitorConfig() {
    return listConfig(kSavedMonitoring);
}

cJSON *amWriteEnforcementConfig() {
    return listConfig(kSavedEnforcement);
}

void amWriteConfigToFile() {
    const Json root(wholeConfig());
    char *const text = root ? cJSON_Print(root.get()) : nullptr;
    if (!text) {
        amLog(AM_LOG_ERROR, "%s:%d no memory, the configuration file stays as it is\n", __func__, __LINE__);
        return;
    }

    am::keepConfigBefore(root.get());
    // The line end takes the place of the terminator: the text is not looked at as a C string again.
    const size_t length = strlen(text);
    text[length] = '\n';
    if (am::replaceFile(kConfigPath, {text, length + 1})) am::noteConfigInFile();
    cJSON_free(text);
}
