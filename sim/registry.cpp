#include "registry.h"

#include "user_client.h"

namespace talvex::sim {

namespace {

// Entry IDs look like the platform's: large, sparse, never 0.
constexpr uint64_t kFirstEntryID = 0x100000400;

bool is_string(CFTypeRef v) { return v && CFGetTypeID(v) == CFStringGetTypeID(); }
bool is_array(CFTypeRef v) { return v && CFGetTypeID(v) == CFArrayGetTypeID(); }
bool is_dictionary(CFTypeRef v) { return v && CFGetTypeID(v) == CFDictionaryGetTypeID(); }

bool string_equals(CFTypeRef v, std::string_view text) { return is_string(v) && to_std_string(static_cast<CFStringRef>(v)) == text; }

// A string, or an array of strings one of which equals `text`.
bool name_matches(CFTypeRef want, std::string_view text) {
    if (is_string(want)) return string_equals(want, text);
    if (!is_array(want)) return false;
    auto array = static_cast<CFArrayRef>(want);
    for (CFIndex i = 0, n = CFArrayGetCount(array); i < n; ++i)
        if (string_equals(CFArrayGetValueAtIndex(array, i), text)) return true;
    return false;
}

bool properties_match(CFDictionaryRef want, CFDictionaryRef have) {
    CFIndex n = CFDictionaryGetCount(want);
    std::vector<const void *> keys(static_cast<size_t>(n)), values(static_cast<size_t>(n));
    CFDictionaryGetKeysAndValues(want, keys.data(), values.data());
    for (CFIndex i = 0; i < n; ++i) {
        const void *actual = nullptr;
        if (!CFDictionaryGetValueIfPresent(have, keys[static_cast<size_t>(i)], &actual)) return false;
        if (!actual || !CFEqual(actual, values[static_cast<size_t>(i)])) return false;
    }
    return true;
}

// A dictionary, or an array of dictionaries one of which matches.
bool property_match(CFTypeRef want, CFDictionaryRef have) {
    if (is_dictionary(want)) return properties_match(static_cast<CFDictionaryRef>(want), have);
    if (!is_array(want)) return false;
    auto array = static_cast<CFArrayRef>(want);
    for (CFIndex i = 0, n = CFArrayGetCount(array); i < n; ++i) {
        CFTypeRef one = CFArrayGetValueAtIndex(array, i);
        if (is_dictionary(one) && properties_match(static_cast<CFDictionaryRef>(one), have)) return true;
    }
    return false;
}

}  // namespace

Service::Service()
    : properties(CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                           &kCFTypeDictionaryValueCallBacks)) {}

Service::~Service() = default;

CFTypeRef Service::get_property(std::string_view key) const {
    auto k = make_cf_string(key);
    return k ? get_property(k.get()) : nullptr;
}

void Service::set_property(std::string_view key, CFTypeRef value) {
    auto k = make_cf_string(key);
    if (k) set_property(k.get(), value);
}

CFTypeRef Service::get_property(CFStringRef key) const { return CFDictionaryGetValue(properties.get(), key); }

void Service::set_property(CFStringRef key, CFTypeRef value) {
    if (value) CFDictionarySetValue(properties.get(), key, value);
}

bool Service::remove_property(std::string_view key) {
    auto k = make_cf_string(key);
    if (!k || !CFDictionaryContainsKey(properties.get(), k.get())) return false;
    CFDictionaryRemoveValue(properties.get(), k.get());
    return true;
}

Registry::Registry() : next_id_(kFirstEntryID) {}
Registry::~Registry() = default;

Service &Registry::add(std::string class_name, std::string name) {
    auto service = std::make_unique<Service>();
    service->id = next_id_++;
    service->class_name = std::move(class_name);
    service->name = std::move(name);
    services_.push_back(std::move(service));
    ++generation_;
    return *services_.back();
}

Service *Registry::find(uint64_t id) const {
    // IDs are handed out consecutively and services are never removed
    // (unpublishing only hides them), so an ID is an index.
    if (id < kFirstEntryID || id - kFirstEntryID >= services_.size()) return nullptr;
    return services_[id - kFirstEntryID].get();
}

Service *Registry::find_class(std::string_view class_name) const {
    for (auto &s : services_)
        if (s->class_name == class_name) return s.get();
    return nullptr;
}

bool Registry::set_published(Service &service, bool published) {
    if (service.published == published) return false;
    service.published = published;
    ++generation_;
    return true;
}

bool Registry::matches(const Service &service, CFDictionaryRef matching) {
    auto get = [&](const char *key) -> CFTypeRef {
        auto k = make_cf_string(key);
        return CFDictionaryGetValue(matching, k.get());
    };
    if (CFTypeRef v = get("IOProviderClass"); v && !string_equals(v, service.class_name)) return false;
    if (CFTypeRef v = get("IONameMatch"); v && !name_matches(v, service.name)) return false;
    if (CFTypeRef v = get("IOPropertyMatch"); v && !property_match(v, service.properties.get())) return false;
    return true;
}

std::vector<uint64_t> Registry::match(CFDictionaryRef matching) const {
    std::vector<uint64_t> out;
    for (auto &s : services_)
        if (s->published && matches(*s, matching)) out.push_back(s->id);
    return out;
}

}  // namespace talvex::sim
