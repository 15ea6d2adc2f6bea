// A panel that shows five of the TV's settings.
#ifndef SETTINGS_PANEL_H
#define SETTINGS_PANEL_H

#include <ZOLSystemData.h>
#include <ZOLWatch.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

class SettingsPanel {
public:
    // Calls wake on another thread whenever a setting has changed. The app's main loop should then show text().
    explicit SettingsPanel(const std::function<void()>& wake)
    {
        const auto changed = [wake](const auto& /*value*/) { wake(); };
        watches_.push_back(ZOLWatch::ZOLActivated(changed));
        watches_.push_back(ZOLWatch::ZOLLanguage(changed));
        watches_.push_back(ZOLWatch::ZOLDefaultAssistantAppid(changed));
        watches_.push_back(ZOLWatch::OSDCountry(changed));
        watches_.push_back(ZOLWatch::BackgroundVolume(changed));
    }

    // Whether all five settings are followed; if not, the log tells why.
    bool follows() const
    {
        return std::all_of(watches_.begin(), watches_.end(), [](const ZOLWatch& watch) { return bool(watch); });
    }

    // The settings as they are now, in one line.
    std::string text() const
    {
        std::string language = "-", assistant = "-", country = "-";
        int volume = 0;
        ZOLSystemData::GetZOLLanguage(language);
        ZOLSystemData::GetZOLDefaultAssistantAppid(assistant);
        ZOLSystemData::GetOSDCountry(country);
        ZOLSystemData::GetBackgroundVolume(volume);
        std::ostringstream text;
        text << (ZOLSystemData::GetZOLActivated() ? "on" : "off") << ", " << language << ", " << assistant << ", "
             << country << ", volume " << volume;
        return text.str();
    }

private:
    std::vector<ZOLWatch> watches_;
};

#endif
