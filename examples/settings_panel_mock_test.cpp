// Tests the settings panel without a store: the program defines the platform's functions itself.
#include <dlog.h>
#include <vconf.h>

#include <cstring>
#include <iostream>
#include <map>

#include "settings_panel.h"

namespace {

struct Subscription {
    vconf_callback_fn handler;
    void* data;
};
std::map<std::string, Subscription> subscriptions;
std::map<std::string, std::string> texts = {{"db/comss/countrycode", "DE"}};
std::string refused;  // a key

// Plays the TV: a text changes. The panel wakes its loop before this returns.
void change(const std::string& key, const char* text)
{
    texts[key] = text;
    keynode_t node{};
    node.keyname = key.c_str();
    node.value.s = text;
    const Subscription& to = subscriptions.at(key);
    to.handler(&node, to.data);
}

bool check(const std::string& expected, const std::string& shown)
{
    if (expected != shown) {
        std::cerr << "expected: " << expected << "\nshown: " << shown << std::endl;
    }
    return expected == shown;
}

}  // namespace

int dlog_print(log_priority, const char*, const char*, ...) { return 0; }
char* vconf_get_str(const char* key)
{
    const auto found = texts.find(key);
    return found == texts.end() ? nullptr : strdup(found->second.c_str());
}
int vconf_get_int(const char*, int*) { return -1; }
int vconf_get_bool(const char*, int*) { return -1; }
int vconf_set_str(const char*, const char*) { return 0; }
int vconf_set_int(const char*, int) { return 0; }
int vconf_set_bool(const char*, int) { return 0; }
int vconf_notify_key_changed(const char* key, vconf_callback_fn handler, void* data)
{
    if (key == refused) {
        return -1;
    }
    subscriptions[key] = {handler, data};
    return 0;
}
int vconf_ignore_key_changed(const char* key, vconf_callback_fn) { return subscriptions.erase(key) == 1 ? 0 : -1; }

bool testChanges()
{
    int wakes = 0;
    const SettingsPanel panel([&wakes] { ++wakes; });
    if (!panel.follows() || !check("off, -, -, DE, volume 0", panel.text())) {
        return false;
    }
    change("db/multi-assistant/zol_language", "de-DE");
    change("db/comss/countrycode", "AT");
    return wakes == 2 && check("off, de-DE, -, AT, volume 0", panel.text());
}

bool testRefusal()
{
    refused = "db/comss/countrycode";  // what no store does on demand
    return !SettingsPanel([] {}).follows();
}

int main()
{
    const bool passed = testChanges() && subscriptions.empty() && testRefusal();
    std::cout << (passed ? "passed" : "failed") << std::endl;
    return passed ? 0 : 1;
}
