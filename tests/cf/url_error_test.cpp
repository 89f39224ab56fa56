// CFURL path resolution and CFError.
#include "cf_support.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

using namespace talvex::test;

namespace {

CFURLRef file_url(const char *path, bool is_directory = false) {
    return CFURLCreateWithFileSystemPath(nullptr, talvex::make_cf_string(path), kCFURLPOSIXPathStyle, is_directory);
}

std::string path_of(CFURLRef url) { return text(CFRef<CFStringRef>(CFURLCopyFileSystemPath(url, kCFURLPOSIXPathStyle))); }

}  // namespace

// Relative paths resolve against the directory at creation (that "." and
// ".." inside are resolved: the start command's tests); absolute paths are
// kept as given, less trailing slashes, and are their own absolute URL.
TEST(CFURL, FileSystemPaths) {
    const std::string dir = std::filesystem::current_path().string();
    CFRef<CFURLRef> up(file_url("../x"));
    EXPECT_EQ(path_of(up), "../x");
    EXPECT_EQ(describe(up), "../x -- file://" + dir + "/");
    std::filesystem::current_path("/");   // later changes of directory do not matter
    EXPECT_EQ(path_of(CFRef<CFURLRef>(CFURLCopyAbsoluteURL(up))),
              std::filesystem::path(dir).parent_path().string() + "/x");
    std::filesystem::current_path(dir);
    for (auto [in, out] : {std::pair{"//fw///a/./b/../c/", "//fw///a/./b/../c"}, {"///", "/"}}) {
        CFRef<CFURLRef> url(file_url(in));
        EXPECT_EQ(path_of(url), out) << in;
        EXPECT_EQ(CFRef<CFURLRef>(CFURLCopyAbsoluteURL(url)).get(), url.get()) << in;
    }
    CFRef<CFURLRef> var(file_url("/var/lib/", true));
    EXPECT_EQ(path_of(var), "/var/lib");
    EXPECT_EQ(describe(var), "file:///var/lib/");
    EXPECT_EQ(file_url(""), nullptr);
    EXPECT_EQ(CFURLCreateWithFileSystemPath(nullptr, CFSTR("/x"), 1, false), nullptr);   // not a POSIX path style
}

TEST(CFError, CarriesDomainCodeAndUserInfo) {
    CFRef<CFMutableDictionaryRef> info(make_dict());
    CFDictionarySetValue(info, kCFErrorDescriptionKey, talvex::make_cf_string("couldn't create channel"));
    const CFIndex code = static_cast<int32_t>(0xe00002bc);   // sign-extended from 32 bits
    CFRef<CFErrorRef> err(CFErrorCreate(nullptr, kCFErrorDomainMach, code, info));
    EXPECT_EQ(CFErrorGetCode(err), -536870212);
    EXPECT_TRUE(CFEqual(CFErrorGetDomain(err), kCFErrorDomainMach));

    // The user info was copied: later changes to the caller's dictionary don't show.
    CFDictionarySetValue(info, kCFErrorDescriptionKey, CFSTR("changed"));
    CFRef<CFStringRef> desc(CFErrorCopyDescription(err));
    EXPECT_EQ(text(desc), "couldn't create channel");
    EXPECT_EQ(describe(err), "Error Domain=NSMachErrorDomain Code=-536870212 \"couldn't create channel\"");

    // Without user info: an empty dictionary and a generic description.
    CFRef<CFErrorRef> bare(CFErrorCreate(nullptr, kCFErrorDomainPOSIX, 2, nullptr));
    EXPECT_EQ(CFDictionaryGetCount(CFRef<CFDictionaryRef>(CFErrorCopyUserInfo(bare))), 0);
    CFRef<CFStringRef> generic(CFErrorCopyDescription(bare));
    EXPECT_EQ(text(generic), "The operation couldn\u2019t be completed. (NSPOSIXErrorDomain error 2.)");
    CFRef<CFErrorRef> twin(CFErrorCreate(nullptr, kCFErrorDomainPOSIX, 2, nullptr));
    EXPECT_TRUE(CFEqual(bare, twin));
    EXPECT_FALSE(CFEqual(bare, err));
    EXPECT_EQ(CFErrorCreate(nullptr, nullptr, 1, nullptr), nullptr);
}
