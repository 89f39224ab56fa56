// The CF containers every property list lives in, against standard
// containers as models: edits of two mutable dictionaries (by equal keys that
// are not the same object, past the size at which they start hashing), each
// copied into the other, so that copies and their originals change in turns;
// edits of an array and a data object, and copies that replace them. After
// every operation that reads, and at the end, each agrees with its model:
// count, lookups, order of iteration, equality and hashes of copies.
#include <CoreFoundation/CoreFoundation.h>
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "plist_gen.h"

using talvex::CFRef;

namespace {

using talvex::fuzz::fail;

constexpr int kKeyCount = 40;   // well past the size at which a dictionary gets an index

// A key: an equal object, not necessarily the same one. Keys below 32 are
// strings "kN"; the others are numbers N, made with any integer type.
CFTypeRef make_key(FuzzedDataProvider &in, int k) {
    if (k < 32) return talvex::make_cf_string("k" + std::to_string(k)).release();
    return talvex::fuzz::PlistGen::integer_of(in.ConsumeIntegralInRange(0, 9), static_cast<uint64_t>(k));
}

CFNumberRef make_value(int64_t v) { return CFNumberCreate(nullptr, kCFNumberSInt64Type, &v); }

int64_t value_of(const void *v) {
    int64_t out = -1;
    if (!v || CFGetTypeID(v) != CFNumberGetTypeID() ||
        !CFNumberGetValue(static_cast<CFNumberRef>(v), kCFNumberSInt64Type, &out))
        fail("a value that is not one of ours");
    return out;
}

int key_of(const void *k) {
    if (k && CFGetTypeID(k) == CFStringGetTypeID()) {
        std::string text = talvex::to_std_string(static_cast<CFStringRef>(k));
        if (text.size() < 2 || text[0] != 'k') fail("a key that is not one of ours");
        return std::stoi(text.substr(1));
    }
    return static_cast<int>(value_of(k));
}

// The dictionary's model: (key, value) in the order keys were first added.
using DictModel = std::vector<std::pair<int, int64_t>>;

DictModel::iterator find(DictModel &m, int k) {
    return std::find_if(m.begin(), m.end(), [k](const auto &e) { return e.first == k; });
}

enum Put { kAdd, kSet, kReplace };

// Key `k` to a new value, on the dictionary and its model: an add only when
// the key is absent, a replace only when it is present, a set either way.
void put(FuzzedDataProvider &in, CFMutableDictionaryRef d, DictModel &m, Put how, int k, int64_t value) {
    CFRef<CFTypeRef> key(make_key(in, k));
    CFRef<CFNumberRef> v(make_value(value));
    (how == kAdd ? CFDictionaryAddValue : how == kSet ? CFDictionarySetValue : CFDictionaryReplaceValue)(d, key, v);
    auto it = find(m, k);
    if (it == m.end() && how != kReplace)
        m.emplace_back(k, value);
    else if (it != m.end() && how != kAdd)
        it->second = value;
}

void check_dict(CFDictionaryRef d, const DictModel &m) {
    auto n = static_cast<size_t>(CFDictionaryGetCount(d));
    if (n != m.size()) fail("dictionary count differs from the model");
    std::vector<const void *> keys(n), values(n);
    CFDictionaryGetKeysAndValues(d, keys.data(), values.data());
    for (size_t i = 0; i < n; ++i)
        if (key_of(keys[i]) != m[i].first || value_of(values[i]) != m[i].second)
            fail("dictionary entries differ from the model or its order");
    struct Walk {
        const DictModel *m;
        size_t i = 0;
    } walk{&m};
    CFDictionaryApplyFunction(
        d,
        [](const void *k, const void *v, void *context) {
            auto *w = static_cast<Walk *>(context);
            if (w->i >= w->m->size() || key_of(k) != (*w->m)[w->i].first || value_of(v) != (*w->m)[w->i].second)
                fail("the apply function walks differently from the model");
            ++w->i;
        },
        &walk);
    if (walk.i != n) fail("the apply function missed entries");
}

void check_data(CFDataRef d, const std::vector<uint8_t> &m) {
    if (static_cast<size_t>(CFDataGetLength(d)) != m.size()) fail("data length differs from the model");
    if (!m.empty() && std::memcmp(CFDataGetBytePtr(d), m.data(), m.size()) != 0) fail("data bytes differ from the model");
}

void check_array(CFArrayRef a, const std::vector<int64_t> &m) {
    if (static_cast<size_t>(CFArrayGetCount(a)) != m.size()) fail("array count differs from the model");
    std::vector<const void *> values(m.size());
    CFArrayGetValues(a, CFRangeMake(0, static_cast<CFIndex>(m.size())), values.data());
    for (size_t i = 0; i < m.size(); ++i)
        if (value_of(values[i]) != m[i] || value_of(CFArrayGetValueAtIndex(a, static_cast<CFIndex>(i))) != m[i])
            fail("array values differ from the model");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider in(data, size);
    const CFIndex capacity = in.ConsumeIntegralInRange<CFIndex>(0, 20);
    CFRef<CFMutableDictionaryRef> dicts[2];
    for (auto &d : dicts)
        d.reset(CFDictionaryCreateMutable(nullptr, capacity, &kCFTypeDictionaryKeyCallBacks,
                                          &kCFTypeDictionaryValueCallBacks));
    DictModel models[2];
    int side = 0;   // the dictionary being edited
    auto check_dicts = [&] {
        for (int i = 0; i < 2; ++i) check_dict(dicts[i].get(), models[i]);
    };
    CFRef<CFMutableArrayRef> array(CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks));
    CFRef<CFMutableDataRef> bytes(CFDataCreateMutable(nullptr, 0));
    std::vector<int64_t> am;
    std::vector<uint8_t> bm;
    int64_t next_value = 0;

    while (in.remaining_bytes() > 0) {
        int k = in.ConsumeIntegralInRange(0, kKeyCount - 1);
        CFRef<CFMutableDictionaryRef> &dict = dicts[side];
        DictModel &dm = models[side];
        switch (int op = in.ConsumeIntegralInRange(0, 19); op) {
        case 0:
        case 1:
        case 2:
        case 3:
            put(in, dict, dm, op == 0 ? kAdd : op == 3 ? kReplace : kSet, k, ++next_value);
            break;
        case 4:
        case 5: {   // remove
            CFRef<CFTypeRef> key(make_key(in, k));
            CFDictionaryRemoveValue(dict.get(), key.get());
            auto it = find(dm, k);
            if (it != dm.end()) dm.erase(it);
            break;
        }
        case 6: {   // a run of keys added at once
            int last = in.ConsumeIntegralInRange(k, kKeyCount - 1);
            for (int j = k; j <= last; ++j) put(in, dict, dm, kSet, j, ++next_value);
            break;
        }
        case 7:
            if (in.ConsumeIntegralInRange(0, 3) == 0) {
                CFDictionaryRemoveAllValues(dict.get());
                dm.clear();
            } else {
                side ^= 1;
            }
            break;
        case 8: {   // lookups
            CFRef<CFTypeRef> key(make_key(in, k));
            auto it = find(dm, k);
            const void *v = CFDictionaryGetValue(dict.get(), key.get());
            const void *w = nullptr;
            Boolean present = CFDictionaryGetValueIfPresent(dict.get(), key.get(), &w);
            Boolean contains = CFDictionaryContainsKey(dict.get(), key.get());
            if (it == dm.end()) {
                if (v || present || contains) fail("a removed or never added key is found");
            } else if (!v || !present || !contains || v != w || value_of(v) != it->second) {
                fail("a key is not found, or found with another value");
            }
            break;
        }
        case 9: {   // copies: mutable with a capacity replaces the other; immutable must equal the original
            check_dicts();
            if (in.ConsumeBool()) {
                dicts[side ^ 1].reset(
                    CFDictionaryCreateMutableCopy(nullptr, in.ConsumeIntegralInRange<CFIndex>(0, 50), dict.get()));
                models[side ^ 1] = dm;
            } else {
                CFRef<CFDictionaryRef> copy(CFDictionaryCreateCopy(nullptr, dict.get()));
                check_dict(copy.get(), dm);
                if (!CFEqual(copy.get(), dict.get()) || CFHash(copy.get()) != CFHash(dict.get()))
                    fail("an immutable copy is not equal to its original");
            }
            check_dicts();
            break;
        }
        case 10: {   // array: append, insert, set (at the end appends), remove
            CFRef<CFNumberRef> v(make_value(++next_value));
            auto at = in.ConsumeIntegralInRange<size_t>(0, am.size());
            switch (in.ConsumeIntegralInRange(0, 3)) {
            case 0:
                CFArrayAppendValue(array.get(), v.get());
                am.push_back(next_value);
                break;
            case 1:
                CFArrayInsertValueAtIndex(array.get(), static_cast<CFIndex>(at), v.get());
                am.insert(am.begin() + static_cast<long>(at), next_value);
                break;
            case 2:
                CFArraySetValueAtIndex(array.get(), static_cast<CFIndex>(at), v.get());
                if (at == am.size())
                    am.push_back(next_value);
                else
                    am[at] = next_value;
                break;
            default:
                if (at < am.size()) {
                    CFArrayRemoveValueAtIndex(array.get(), static_cast<CFIndex>(at));
                    am.erase(am.begin() + static_cast<long>(at));
                }
                break;
            }
            break;
        }
        case 11:   // an array copy replaces the original
            check_array(array.get(), am);
            array.reset(CFArrayCreateMutableCopy(nullptr, 0, array.get()));
            check_array(array.get(), am);
            break;
        case 12: {   // data: append
            auto b = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, 80));
            CFDataAppendBytes(bytes.get(), b.data(), static_cast<CFIndex>(b.size()));
            bm.insert(bm.end(), b.begin(), b.end());
            break;
        }
        case 13: {   // data: new length, new bytes zero (a longer length goes the same way)
            auto n = in.ConsumeIntegralInRange<size_t>(0, 300);
            CFDataSetLength(bytes.get(), static_cast<CFIndex>(n));
            bm.resize(n, 0);
            break;
        }
        case 14: {   // data: write through the mutable pointer, read a range back
            if (!bm.empty()) {
                auto at = in.ConsumeIntegralInRange<size_t>(0, bm.size() - 1);
                auto v = in.ConsumeIntegral<uint8_t>();
                CFDataGetMutableBytePtr(bytes.get())[at] = v;
                bm[at] = v;
                auto n = in.ConsumeIntegralInRange<size_t>(0, bm.size() - at);
                std::vector<uint8_t> out(n + 1, 0);
                CFDataGetBytes(bytes.get(), CFRangeMake(static_cast<CFIndex>(at), static_cast<CFIndex>(n)), out.data());
                if (n && std::memcmp(out.data(), bm.data() + at, n) != 0) fail("data bytes read back differ");
            }
            break;
        }
        case 15: {   // data copies
            check_data(bytes.get(), bm);
            if (in.ConsumeBool()) {
                bytes.reset(CFDataCreateMutableCopy(nullptr, in.ConsumeIntegralInRange<CFIndex>(0, 200), bytes.get()));
            } else {
                CFRef<CFDataRef> copy(CFDataCreateCopy(nullptr, bytes.get()));
                check_data(copy.get(), bm);
                if (!CFEqual(copy.get(), bytes.get()) || CFHash(copy.get()) != CFHash(bytes.get()))
                    fail("a data copy is not equal to its original");
            }
            check_data(bytes.get(), bm);
            break;
        }
        default:
            check_dicts();
            break;
        }
    }
    check_dicts();
    check_array(array.get(), am);
    check_data(bytes.get(), bm);
    return 0;
}
