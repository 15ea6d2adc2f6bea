// Reads the assistant language, watches it and changes it.
#include <ZOLSystemData.h>
#include <ZOLSystemDataNotify.h>

#include <chrono>
#include <future>
#include <iostream>

static void onLanguage(std::string language, void* changed)  // on the thread that delivers changes
{
    static_cast<std::promise<std::string>*>(changed)->set_value(language);
}

int main()
{
    std::string language = "not set";
    ZOLSystemData::GetZOLLanguage(language);
    std::promise<std::string> changed;
    std::future<std::string> next = changed.get_future();
    ZOLSystemDataNotify::RegisterZOLLanguageCallback(onLanguage, &changed);
    ZOLSystemData::SetZOLLanguage("de-DE");
    const bool told = next.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    ZOLSystemDataNotify::UnregisterZOLLanguageCallback(onLanguage);
    std::cout << language << ", then " << (told ? next.get() : "nothing; the log tells why") << std::endl;
}
