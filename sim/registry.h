// The simulated registry: services with a class, a name, an entry ID, a
// property table and a published flag, in the order they were added.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cf_ref.h"

namespace talvex::sim {

class ServiceModel;

struct Service {
    uint64_t id = 0;             // unique, never 0
    std::string class_name;
    std::string name;
    CFRef<CFMutableDictionaryRef> properties;   // insertion-ordered, CF-typed values
    bool published = true;
    std::unique_ptr<ServiceModel> model;         // opens user clients; null: none can be opened

    Service();
    ~Service();
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    // Property access by UTF-8 key. get_property returns a borrowed reference.
    CFTypeRef get_property(std::string_view key) const;
    void set_property(std::string_view key, CFTypeRef value);
    // The same by a string key, which a lookup made on every call keeps
    // rather than making one each time.
    CFTypeRef get_property(CFStringRef key) const;
    void set_property(CFStringRef key, CFTypeRef value);
    bool remove_property(std::string_view key);   // false when absent
};

class Registry {
public:
    Registry();
    ~Registry();
    Registry(const Registry &) = delete;
    Registry &operator=(const Registry &) = delete;

    // Adds a published service (which changes the generation) and returns it.
    Service &add(std::string class_name, std::string name);

    Service *find(uint64_t id) const;
    // The first service of the class, published or not.
    Service *find_class(std::string_view class_name) const;

    // Publishing or unpublishing changes the generation; setting the flag it
    // already has changes nothing. Returns whether anything changed.
    bool set_published(Service &service, bool published);

    // Changes whenever a service is published or unpublished.
    uint64_t generation() const { return generation_; }

    // Entry IDs of the published services that the matching dictionary
    // matches, in registry order. Understood keys, all of which must match
    // when given: "IOProviderClass" (class name, a string), "IONameMatch"
    // (entry name: a string, or an array of strings of which one must
    // match), "IOPropertyMatch" (a dictionary whose every key the service
    // must have with an equal value, or an array of such dictionaries of
    // which one must match). Other keys are ignored; an empty dictionary
    // matches every published service.
    std::vector<uint64_t> match(CFDictionaryRef matching) const;
    static bool matches(const Service &service, CFDictionaryRef matching);

    const std::vector<std::unique_ptr<Service>> &services() const { return services_; }

private:
    std::vector<std::unique_ptr<Service>> services_;
    uint64_t generation_ = 1;
    uint64_t next_id_;
};

}  // namespace talvex::sim
