#include "null_platform.h"

#include <dlog.h>
#include <vconf.h>

#include <cstring>

const char* platformText = "";
thread_local void* platformSubscriber = nullptr;

int dlog_print(log_priority /*priority*/, const char* /*tag*/, const char* /*format*/, ...) { return 0; }

char* vconf_get_str(const char* /*key*/) { return strdup(platformText); }
int vconf_set_str(const char* /*key*/, const char* /*value*/) { return 0; }
int vconf_get_int(const char* /*key*/, int* value) { return *value = 1, 0; }
int vconf_set_int(const char* /*key*/, int /*value*/) { return 0; }
int vconf_get_bool(const char* /*key*/, int* value) { return *value = 1, 0; }
int vconf_set_bool(const char* /*key*/, int /*value*/) { return 0; }
int vconf_notify_key_changed(const char* /*key*/, vconf_callback_fn /*handler*/, void* data)
{
    platformSubscriber = data;
    return 0;
}
int vconf_ignore_key_changed(const char* /*key*/, vconf_callback_fn /*handler*/) { return 0; }
