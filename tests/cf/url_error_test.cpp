// CFURL path resolution and CFError.
#include "cf_support.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

using namespace talvex::test;

namespace {

std::string path_of(CFURLRef url) {
    CFRef<CFStringRef> p(CFURLCopyFileSystemPath(url, kCFURLPOSIXPathStyle));
    return text(p);
}

CFURLRef file_url(const char *path, bool is_directory = false) {
    CFRef<CFStringRef> s(CFStringCreateWithCString(nullptr, path, kCFStringEncodingUTF8));
    return CFURLCreateWithFileSystemPath(nullptr, s, kCFURLPOSIXPathStyle, is_directory);
}

std::string absolute_path_of(CFURLRef url) {
    CFRef<CFURLRef> abs(CFURLCopyAbsoluteURL(url));
    return path_of(abs);
}

}  // namespace

// Relative paths resolve against the directory at creation.
TEST(CFURL, FileSystemPaths) {
    const std::string dir = std::filesystem::current_path().string();
    CFRef<CFURLRef> rel(file_url("fw/./v2/../image.bin"));
    ASSERT_NE(rel.get(), nullptr);
    EXPECT_EQ(path_of(rel), "fw/image.bin");
    EXPECT_EQ(describe(rel), "fw/image.bin -- file://" + dir + "/");
    CFRef<CFURLRef> up(file_url("../x"));
    EXPECT_EQ(path_of(up), "../x");
    std::filesystem::current_path("/");   // later changes of directory do not matter
    EXPECT_EQ(absolute_path_of(rel), dir + "/fw/image.bin");
    EXPECT_EQ(absolute_path_of(up), std::filesystem::path(dir).parent_path().string() + "/x");
    std::filesystem::current_path(dir);
    CFRef<CFURLRef> here(file_url("."));
    EXPECT_EQ(absolute_path_of(here), dir);

    // Absolute paths are kept as given, less trailing slashes.
    for (auto [in, out] : {std::pair{"//fw///a/./b/../c/", "//fw///a/./b/../c"}, {"///", "/"}}) {
        CFRef<CFURLRef> url(file_url(in));
        EXPECT_EQ(path_of(url), out) << in;
        CFRef<CFURLRef> abs(CFURLCopyAbsoluteURL(url));
        EXPECT_EQ(abs.get(), url.get()) << "an absolute URL is its own absolute URL";
    }
    CFRef<CFURLRef> var(file_url("/var/lib/", true));
    EXPECT_EQ(path_of(var), "/var/lib");
    EXPECT_EQ(describe(var), "file:///var/lib/");
    EXPECT_EQ(file_url(""), nullptr);
    CFRef<CFStringRef> s(CFStringCreateWithCString(nullptr, "/x", kCFStringEncodingUTF8));
    EXPECT_EQ(CFURLCreateWithFileSystemPath(nullptr, s, 1, false), nullptr);   // not a POSIX path style
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
