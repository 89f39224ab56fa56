// IOKit user-space API subset: service matching, registry properties, user
// clients and their external methods, shared memory, interest notifications.
//
// On this machine the registry lives in the simulator (talvexsim). The process
// reaches it over one Unix socket, found through TALVEX_SIM_SOCKET or the
// per-user default. With no simulator reachable the registry is empty: matching
// finds nothing, exactly as on a machine without the driver. A call that is cut
// off because the simulator went away returns kIOReturnIPCError promptly.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOReturn.h>
#include <dispatch/dispatch.h>
#include <mach/mach.h>

#include <cstddef>
#include <cstdint>

// What this header declares is the shared library's exported interface; the
// library is built with everything else hidden.
#pragma GCC visibility push(default)

typedef mach_port_t io_object_t;   // 32-bit handle; 0 is "none"
typedef io_object_t io_service_t;
typedef io_object_t io_connect_t;
typedef io_object_t io_iterator_t;
typedef io_object_t io_registry_entry_t;
typedef uint32_t IOOptionBits;
typedef char io_name_t[128];
typedef struct IONotificationPort *IONotificationPortRef;

inline constexpr mach_port_t kIOMasterPortDefault = 0;
inline constexpr mach_port_t kIOMainPortDefault = 0;
#define kIOGeneralInterest "IOGeneralInterest"
#define kIOPropertyMatchKey "IOPropertyMatch"
#define kIOProviderClassKey "IOProviderClass"
#define kIONameMatchKey "IONameMatch"

enum : IOOptionBits { kIOMapAnywhere = 0x00000001 };

typedef void (*IOServiceInterestCallback)(void *refcon, io_service_t service, uint32_t message_type,
                                          void *message_argument);

// Objects
kern_return_t IOObjectRelease(io_object_t object);
kern_return_t IOObjectRetain(io_object_t object);
uint32_t IOObjectGetUserRetainCount(io_object_t object);   // 0 for a handle that names nothing
boolean_t IOObjectIsEqualTo(io_object_t object, io_object_t another);
kern_return_t IOObjectGetClass(io_object_t object, io_name_t class_name);

// Matching. The matching dictionary is consumed (one reference released) by
// both lookups, whatever they return.
CFMutableDictionaryRef IOServiceMatching(const char *class_name);
io_service_t IOServiceGetMatchingService(mach_port_t main_port, CFDictionaryRef matching);
kern_return_t IOServiceGetMatchingServices(mach_port_t main_port, CFDictionaryRef matching, io_iterator_t *existing);

// Iterators: a snapshot of the matched services. An iterator becomes invalid
// when the registry changes (a service published or unpublished) after it was made.
io_object_t IOIteratorNext(io_iterator_t iterator);
boolean_t IOIteratorIsValid(io_iterator_t iterator);
void IOIteratorReset(io_iterator_t iterator);

// Registry entries
CFTypeRef IORegistryEntryCreateCFProperty(io_registry_entry_t entry, CFStringRef key, CFAllocatorRef allocator,
                                          IOOptionBits options);
kern_return_t IORegistryEntryCreateCFProperties(io_registry_entry_t entry, CFMutableDictionaryRef *properties,
                                                CFAllocatorRef allocator, IOOptionBits options);
kern_return_t IORegistryEntrySetCFProperty(io_registry_entry_t entry, CFStringRef property_name, CFTypeRef property);
kern_return_t IORegistryEntryGetName(io_registry_entry_t entry, io_name_t name);
kern_return_t IORegistryEntryGetRegistryEntryID(io_registry_entry_t entry, uint64_t *entry_id);

// User clients
kern_return_t IOServiceOpen(io_service_t service, task_port_t owning_task, uint32_t type, io_connect_t *connect);
kern_return_t IOServiceClose(io_connect_t connect);
kern_return_t IOConnectCallMethod(io_connect_t connection, uint32_t selector, const uint64_t *input,
                                  uint32_t input_count, const void *input_struct, size_t input_struct_count,
                                  uint64_t *output, uint32_t *output_count, void *output_struct,
                                  size_t *output_struct_count);
kern_return_t IOConnectCallScalarMethod(io_connect_t connection, uint32_t selector, const uint64_t *input,
                                        uint32_t input_count, uint64_t *output, uint32_t *output_count);
kern_return_t IOConnectCallStructMethod(io_connect_t connection, uint32_t selector, const void *input_struct,
                                        size_t input_struct_count, void *output_struct, size_t *output_struct_count);
// Maps the connection's memory of the given type read-only into this process.
kern_return_t IOConnectMapMemory(io_connect_t connect, uint32_t memory_type, task_port_t into_task,
                                 mach_vm_address_t *at_address, mach_vm_size_t *of_size, IOOptionBits options);
kern_return_t IOConnectUnmapMemory(io_connect_t connect, uint32_t memory_type, task_port_t from_task,
                                   mach_vm_address_t at_address);

// Notifications
IONotificationPortRef IONotificationPortCreate(mach_port_t main_port);
void IONotificationPortDestroy(IONotificationPortRef notify);
void IONotificationPortSetDispatchQueue(IONotificationPortRef notify, dispatch_queue_t queue);
kern_return_t IOServiceAddInterestNotification(IONotificationPortRef notify_port, io_service_t service,
                                               const char *interest_type, IOServiceInterestCallback callback,
                                               void *ref_con, io_object_t *notification);

#pragma GCC visibility pop
