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
std::string refused;  // a key

// Plays the TV: a key changes. The panel is told before this returns.
void change(const std::string& key, int number, const char* text)
{
    keynode_t node{};
    node.keyname = key.c_str();
    node.value = {number, text};
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
char* vconf_get_str(const char* key) { return strdup(key == std::string("db/comss/countrycode") ? "DE" : "none"); }
int vconf_get_int(const char*, int* value) { return *value = 5, 0; }
int vconf_get_bool(const char*, int*) { return -1; }
int vconf_set_str(const char*, const char*) { return 0; }
int vconf_set_int(const char*, int) { return 0; }
int vconf_set_bool(const char*, int) { return 0; }
int vconf_notify_key_changed(const char* key, vconf_callback_fn handler, void* data)
{
    return key == refused ? -1 : (subscriptions[key] = {handler, data}, 0);
}
int vconf_ignore_key_changed(const char* key, vconf_callback_fn) { return subscriptions.erase(key) == 1 ? 0 : -1; }

int main()
{
    std::string shown;
    const auto show = [&](const std::string& text) { shown = text; };
    bool passed = true;
    {
        const SettingsPanel panel(show);
        passed &= panel.follows() && check("off, none, none, DE, volume 5", shown);
        change("db/multi-assistant/activated", 1, nullptr);
        change("db/multi-assistant/zol_language", 0, "de-DE");
        passed &= check("on, de-DE, none, DE, volume 5", shown);
    }
    passed &= subscriptions.empty();
    refused = "db/comss/countrycode";  // what no store does on demand
    passed &= !SettingsPanel(show).follows();
    std::cout << (passed ? "passed" : "failed") << std::endl;
    return passed ? 0 : 1;
}
