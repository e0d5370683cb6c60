// Absolute paths in both path styles, whichever platform runs the test.
#include "cl/cl.h"
#include "mem/mem.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string absolute(const char *path, const char *base, char sep) {
    str_t out;
    str_init(&out);
    cl_path_absolute(&out, path, base, sep);
    std::string r(out.ptr, (size_t) out.len);
    str_kill(&out);
    return r;
}

struct path_case {
    const char *path;
    const char *base;
    const char *expected;
};

TEST(Path, WindowsStyle) {
    const path_case cases[] = {
        {"x.txt", "C:\\base", "C:\\base\\x.txt"},
        {"x.txt", "C:\\base\\", "C:\\base\\x.txt"},
        {"sub/x.txt", "C:\\base", "C:\\base\\sub\\x.txt"},
        {"sub\\", "C:\\base", "C:\\base\\sub\\"},
        {".", "C:\\base", "C:\\base"},
        {".\\", "C:\\base", "C:\\base\\"},
        {"..", "C:\\base", "C:\\"},
        {"..\\..\\..\\x", "C:\\base", "C:\\x"},
        {"a\\.\\b\\..\\c", "C:\\base", "C:\\base\\a\\c"},
        {"a\\\\\\b", "C:\\base", "C:\\base\\a\\b"},
        {"D:\\other\\x", "C:\\base", "D:\\other\\x"},
        {"d:/other/../x", "C:\\base", "d:\\x"},
        {"C:sub", "c:\\base", "c:\\base\\sub"},
        {"D:sub", "C:\\base", "D:\\sub"},
        {"\\top\\x", "C:\\base\\deep", "C:\\top\\x"},
        {"/top", "C:\\base", "C:\\top"},
        {"\\\\server\\share\\a\\..\\b", "C:\\base", "\\\\server\\share\\b"},
        {"\\\\server\\share\\..\\..", "C:\\base", "\\\\server\\share\\"},
        {"x", "\\\\server\\share\\dir", "\\\\server\\share\\dir\\x"},
        {"\\x", "\\\\server\\share\\dir", "\\\\server\\share\\x"},
        {"C:\\", "C:\\base", "C:\\"},
        {"", "C:\\base", ""},
        {"x", "", "x"},
        {"..\\x", "", "..\\x"},
        {"a\\..\\..\\x", "", "..\\x"},
        {"..\\..\\x", "", "..\\..\\x"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(absolute(c.path, c.base, '\\'), c.expected) << c.path << " against " << c.base;
    }
}

TEST(Path, PosixStyle) {
    const path_case cases[] = {
        {"x.txt", "/base", "/base/x.txt"},
        {"x.txt", "/base/", "/base/x.txt"},
        {"x.txt", "/", "/x.txt"},
        {"sub/", "/base", "/base/sub/"},
        {"..", "/base", "/"},
        {"../../..", "/base", "/"},
        {"../..//x/./y/", "/a/b/c", "/a/x/y/"},
        {"/abs//p", "/base", "/abs/p"},
        {"/", "/base", "/"},
        // A backslash is part of a name here, and "C:" is an ordinary relative name.
        {"a\\b", "/base", "/base/a\\b"},
        {"C:\\x", "/base", "/base/C:\\x"},
        {"..a/.b/...", "/base", "/base/..a/.b/..."},
        {"x", "", "x"},
        {"../../x/..", "", "../.."},
        {"", "/base", ""},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(absolute(c.path, c.base, '/'), c.expected) << c.path << " against " << c.base;
    }
}

} // namespace
