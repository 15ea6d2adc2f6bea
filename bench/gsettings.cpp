// The peer: GSettings with its memory backend for reads and its key file backend for writes and changes. The key file
// backend writes a new file, flushes it to the disk and moves it over the old one before the setter returns.

#define G_SETTINGS_ENABLE_BACKEND
#include <gio/gio.h>
#include <gio/gsettingsbackend.h>

#include <string>

#include "other_process.h"
#include "repeat.h"

namespace {

// Nothing is released here: the settings last as long as the program.
GSettings* settingsOver(GSettingsBackend* backend)
{
    static GSettingsSchemaSource* const source =
        g_settings_schema_source_new_from_directory(BENCH_SCHEMAS, nullptr, TRUE, nullptr);
    return g_settings_new_full(g_settings_schema_source_lookup(source, "bench", FALSE), backend, nullptr);
}

GSettings* inKeyFile()
{
    char* file = g_build_filename(g_getenv("ZOL_VCONF_DIR"), "peer", nullptr);
    GSettings* settings = settingsOver(g_keyfile_settings_backend_new(file, "/", nullptr));
    g_free(file);
    return settings;
}

void set(GSettings* settings, std::int64_t number)
{
    if (g_settings_set_string(settings, "text", std::to_string(number).c_str()) == FALSE) {
        g_error("the key file cannot be written");
    }
}

void tellNumber(GSettings* settings, const char* key, void* /*unused*/)
{
    char* text = g_settings_get_string(settings, key);
    tell(std::stoll(text));
    g_free(text);
}

}  // namespace

void addPeer()
{
    GSettings* memory = settingsOver(g_memory_settings_backend_new());
    g_settings_set(memory, "text", "s", "en-GB");
    g_settings_set(memory, "number", "i", 7);
    g_settings_set(memory, "flag", "b", TRUE);
    add("store: read a string/peer", [memory] {
        char* text = g_settings_get_string(memory, "text");
        benchmark::DoNotOptimize(text);
        g_free(text);
    });
    add("store: read an integer/peer", [memory] { benchmark::DoNotOptimize(g_settings_get_int(memory, "number")); });
    add("store: read a boolean/peer", [memory] { benchmark::DoNotOptimize(g_settings_get_boolean(memory, "flag")); });

    g_setenv("GSETTINGS_BACKEND", "keyfile", TRUE);
    g_setenv("GSETTINGS_SCHEMA_DIR", BENCH_SCHEMAS, TRUE);
    g_setenv("XDG_CONFIG_HOME", g_getenv("ZOL_VCONF_DIR"), TRUE);
    runProgram({"gsettings", "set", "bench", "text", "en-GB"});
    add("get, as a process/peer", [] { runProgram({"gsettings", "get", "bench", "text"}); });

    GSettings* keyFile = inKeyFile();
    add("write/peer", [keyFile, number = 0]() mutable { set(keyFile, ++number); });
    addDelay("set to callback/peer", "peer", [keyFile](std::int64_t number) { set(keyFile, number); });
}

void watchPeer()
{
    GSettings* settings = inKeyFile();
    g_signal_connect(settings, "changed::text", G_CALLBACK(tellNumber), nullptr);
    g_free(g_settings_get_string(settings, "text"));  // changes are told only of keys that have been read
    tell(0);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
