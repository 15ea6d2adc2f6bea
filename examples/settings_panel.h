// A panel that follows five of the TV's settings.
#ifndef SETTINGS_PANEL_H
#define SETTINGS_PANEL_H

#include <ZOLSystemData.h>
#include <ZOLWatch.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>

class SettingsPanel {
public:
    // Shows the settings as one line of text, now and whenever one changes, on whichever thread.
    explicit SettingsPanel(std::function<void(const std::string& text)> show) : show_(std::move(show))
    {
        // The watches were made before these reads, so no change is missed.
        const std::lock_guard<std::mutex> guard(mutex_);
        active_ = ZOLSystemData::GetZOLActivated();
        ZOLSystemData::GetZOLLanguage(language_);
        ZOLSystemData::GetZOLDefaultAssistantAppid(assistant_);
        ZOLSystemData::GetOSDCountry(country_);
        ZOLSystemData::GetBackgroundVolume(volume_);
        isRead_ = true;
        showAll();
    }

    // Whether all five settings are followed; if not, the log tells why.
    bool follows() const
    {
        return std::all_of(std::begin(watches_), std::end(watches_), [](const ZOLWatch& each) { return bool(each); });
    }

private:
    template <class Value>
    std::function<void(const Value&)> keep(Value& setting)
    {
        return [this, &setting](const Value& value) {
            const std::lock_guard<std::mutex> guard(mutex_);
            setting = value;
            if (isRead_) {
                showAll();
            }
        };
    }

    void showAll() const
    {
        std::ostringstream text;
        text << (active_ ? "on" : "off") << ", " << language_ << ", " << assistant_ << ", " << country_ << ", volume "
             << volume_;
        show_(text.str());
    }

    std::function<void(const std::string& text)> show_;
    std::mutex mutex_;  // protects the settings
    bool isRead_ = false;
    bool active_ = false;
    std::string language_ = "-", assistant_ = "-", country_ = "-";
    int volume_ = 0;
    // Last, so that they end first: nothing changes a panel that is being destroyed.
    ZOLWatch watches_[5] = {ZOLWatch::ZOLActivated(keep(active_)), ZOLWatch::ZOLLanguage(keep(language_)),
                            ZOLWatch::ZOLDefaultAssistantAppid(keep(assistant_)), ZOLWatch::OSDCountry(keep(country_)),
                            ZOLWatch::BackgroundVolume(keep(volume_))};
};

#endif
