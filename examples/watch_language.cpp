// Reads the assistant language, watches it and changes it.
#include <ZOLSystemData.h>
#include <ZOLWatch.h>

#include <chrono>
#include <future>
#include <iostream>

int main()
{
    std::string language = "not set";
    ZOLSystemData::GetZOLLanguage(language);
    std::promise<std::string> changed;
    const ZOLWatch watch = ZOLWatch::ZOLLanguage([&](const std::string& value) { changed.set_value(value); });
    ZOLSystemData::SetZOLLanguage("de-DE");
    std::future<std::string> next = changed.get_future();
    const bool notified = watch && next.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    std::cout << language << ", then " << (notified ? next.get() : "nothing; the log tells why") << std::endl;
}
