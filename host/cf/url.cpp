// CFURL for POSIX file paths. An absolute path is kept as given; a relative
// one is kept together with the current directory at the time the URL was
// made, and resolved lexically when made absolute.
#include "cf_internal.h"

#include <filesystem>
#include <string>
#include <vector>

struct __CFURL {
    CFRuntimeBase base;
    std::string path;       // absolute as given, or relative (normalised) when base_dir is not empty
    std::string base_dir;   // absolute, normalised; empty for an absolute path
    bool is_directory;
};

namespace cf {
namespace {

const __CFURL *as_url(CFTypeRef cf, const char *function) { return cast<__CFURL>(cf, kURLTypeID, function); }

// Removes empty and "." components and resolves ".." lexically (".." at the
// root stays at the root; leading ".." of a relative path are kept). An
// absolute result has no trailing slash except "/"; a relative one that
// comes out empty is ".".
std::string normalise(std::string_view path) {
    bool absolute = path.starts_with('/');
    std::vector<std::string_view> parts;
    size_t i = 0;
    while (i <= path.size()) {
        size_t end = path.find('/', i);
        if (end == std::string_view::npos) end = path.size();
        std::string_view part = path.substr(i, end - i);
        if (part == "..") {
            if (!parts.empty() && parts.back() != "..") {
                parts.pop_back();
            } else if (!absolute) {
                parts.push_back(part);
            }
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        i = end + 1;
    }
    std::string out = absolute ? "/" : "";
    for (size_t k = 0; k < parts.size(); ++k) {
        if (k != 0) out += '/';
        out += parts[k];
    }
    if (out.empty()) out.push_back('.');
    return out;
}

__CFURL *new_url(std::string path, std::string base_dir, bool is_directory) noexcept {
    __CFURL *url = make_object<__CFURL>(kURLTypeID);
    if (url == nullptr) return nullptr;
    url->path = std::move(path);
    url->base_dir = std::move(base_dir);
    url->is_directory = is_directory;
    return url;
}

void url_finalize(CFTypeRef cf) { destroy_fields<__CFURL>(cf); }

Boolean url_equal(CFTypeRef x, CFTypeRef y) {
    auto a = static_cast<const __CFURL *>(x);
    auto b = static_cast<const __CFURL *>(y);
    return a->path == b->path && a->base_dir == b->base_dir && a->is_directory == b->is_directory;
}

CFHashCode url_hash(CFTypeRef cf) {
    auto u = static_cast<const __CFURL *>(cf);
    return hash_bytes(u->path.data(), u->path.size()) ^ hash_bytes(u->base_dir.data(), u->base_dir.size());
}

void append_location(std::string &out, const std::string &path, bool is_directory) {
    out += path;
    if (is_directory && !path.ends_with('/')) out += '/';
}

// "file:///abs/path" (a directory ends with "/"); a relative URL shows as
// "rel/path -- file:///base/dir/".
CFStringRef url_description(CFTypeRef cf) {
    auto u = static_cast<const __CFURL *>(cf);
    try {
        std::string text;
        if (u->base_dir.empty()) {
            text = "file://";
            append_location(text, u->path, u->is_directory);
        } else {
            append_location(text, u->path, u->is_directory);
            text += " -- file://";
            append_location(text, u->base_dir, true);
        }
        return make_string(text);
    } catch (...) {
        return nullptr;
    }
}

}  // namespace

const CFRuntimeClass kURLClass = {0, "CFURL", nullptr, nullptr, url_finalize, url_equal, url_hash, nullptr,
                                  url_description};

}  // namespace cf

using namespace cf;

CFTypeID CFURLGetTypeID(void) { return kURLTypeID; }

// Null for an empty path, a path style other than POSIX, or, for a relative
// path, when the current directory cannot be read or is not UTF-8.
CFURLRef CFURLCreateWithFileSystemPath(CFAllocatorRef, CFStringRef file_path, CFURLPathStyle path_style,
                                       Boolean is_directory) {
    const __CFString *s = cast<__CFString>(file_path, kStringTypeID, "CFURLCreateWithFileSystemPath");
    if (s == nullptr || path_style != kCFURLPOSIXPathStyle || s->length == 0) return nullptr;
    try {
        std::string_view text = string_view_of(s);
        // An absolute path is kept as given ("." and ".." segments and
        // doubled slashes included), less any trailing slash.
        if (text.starts_with('/')) {
            size_t end = text.find_last_not_of('/');
            return new_url(std::string(end == std::string_view::npos ? "/" : text.substr(0, end + 1)), {},
                           is_directory);
        }
        std::error_code ec;
        std::filesystem::path cwd = std::filesystem::current_path(ec);
        if (ec || !cwd.is_absolute() || !scan_utf8(cwd.native()).valid) return nullptr;
        return new_url(normalise(text), normalise(cwd.native()), is_directory);
    } catch (...) {
        return nullptr;
    }
}

CFURLRef CFURLCopyAbsoluteURL(CFURLRef url) {
    const __CFURL *u = as_url(url, "CFURLCopyAbsoluteURL");
    if (u == nullptr) return nullptr;
    if (u->base_dir.empty()) return static_cast<CFURLRef>(CFRetain(u));
    try {
        return new_url(normalise(u->base_dir + "/" + u->path), {}, u->is_directory);
    } catch (...) {
        return nullptr;
    }
}

// The path as made (relative for a relative URL), without a trailing slash.
CFStringRef CFURLCopyFileSystemPath(CFURLRef url, CFURLPathStyle path_style) {
    const __CFURL *u = as_url(url, "CFURLCopyFileSystemPath");
    if (u == nullptr || path_style != kCFURLPOSIXPathStyle) return nullptr;
    return make_string(u->path);
}
