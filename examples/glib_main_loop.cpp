// An app on a GLib main loop. It prints six settings and the apps in concurrent mode whenever one of them changes, and
// each app that is installed, until SIGTERM or SIGINT.
#include <ZOLSystemData.h>
#include <ZOLWatch.h>
#include <glib-unix.h>
#include <glib.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

namespace {

// The watches' callables run on another thread. For settings they only wake the loop, however many changes there are.
std::atomic<bool> woken{false};

gboolean showSettings(gpointer /*data*/)
{
    woken = false;  // before the reads, so that a later change wakes the loop again
    std::string language = "-", assistant = "-", country = "-";
    int volume = 0;
    std::vector<std::string> apps;  // must be empty, since the list is appended
    ZOLSystemData::GetZOLLanguage(language);
    ZOLSystemData::GetZOLDefaultAssistantAppid(assistant);
    ZOLSystemData::GetOSDCountry(country);
    ZOLSystemData::GetBackgroundVolume(volume);
    ZOLSystemData::GetZOLConcurrentAppList(apps);
    std::cout << (ZOLSystemData::GetZOLActivated() ? "on" : "off") << ", "
              << (ZOLSystemData::GetZOLMultipleMode() ? "several" : "one") << ", " << language << ", " << assistant
              << ", " << country << ", volume " << volume << ", apps:";
    for (const std::string& app : apps) {
        std::cout << " " << app;
    }
    std::cout << std::endl;
    return G_SOURCE_REMOVE;
}

// Every installed app counts, so each is queued with its value. The loop is the queue.
gboolean showInstalled(gpointer app)
{
    std::cout << "installed " << static_cast<const char*>(app) << std::endl;
    return G_SOURCE_REMOVE;
}

gboolean quit(gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_CONTINUE;
}

}  // namespace

int main()
{
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(SIGTERM, quit, loop);
    g_unix_signal_add(SIGINT, quit, loop);

    const auto wake = [](const auto& /*value*/) {
        if (!woken.exchange(true)) {
            g_idle_add(showSettings, nullptr);
        }
    };
    const auto queue = [](const std::string& app) {
        g_idle_add_full(G_PRIORITY_DEFAULT_IDLE, showInstalled, g_strdup(app.c_str()), g_free);
    };
    ZOLWatch watches[] = {
        ZOLWatch::ZOLActivated(wake),         ZOLWatch::ZOLMultipleMode(wake),
        ZOLWatch::ZOLLanguage(wake),          ZOLWatch::ZOLDefaultAssistantAppid(wake),
        ZOLWatch::OSDCountry(wake),           ZOLWatch::BackgroundVolume(wake),
        ZOLWatch::ZOLConcurrentAppList(wake), ZOLWatch::WebAppInstall(queue),
    };
    if (!std::all_of(std::begin(watches), std::end(watches), [](const ZOLWatch& watch) { return bool(watch); })) {
        std::cerr << "The settings cannot be followed; the log tells why." << std::endl;
        return 1;
    }
    wake(0);  // shows the settings for the first time
    g_main_loop_run(loop);

    for (ZOLWatch& watch : watches) {
        watch.end();  // nothing wakes the loop from here on
    }
    g_main_loop_unref(loop);
    std::cout << "ended" << std::endl;
}
