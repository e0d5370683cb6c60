// Test images and what ntfs-3g's own tools say about them: images made at test time by make-image.sh
// (mkntfs, an ntfs-3g mount, the manifest), the listing read back with ntfsls, and each file's dates and
// attributes with ntfsinfo. The reader under test is compared with these, never with the manifest.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace fs = std::filesystem;

struct image_kind_t {
    const char *name;
    uint32_t cluster, sector;
    bool frag;
};

// Every image of the matrix: the cluster sizes with both sector sizes where mkntfs allows them, and one
// image whose $MFT is fragmented.
inline const std::vector<image_kind_t> &image_matrix() {
    static const std::vector<image_kind_t> m = {
        {"c512-s512", 512, 512, false},         {"c4096-s512", 4096, 512, false},
        {"c4096-s4096", 4096, 4096, false},     {"c65536-s512", 65536, 512, false},
        {"c131072-s4096", 131072, 4096, false}, {"frag-c4096-s512", 4096, 512, true},
    };
    return m;
}

inline std::string tests_ntfs_folder() {
    return SW_SOURCE_DIR "/tests/ntfs";
}

inline std::string run_text(const std::string &cmd) {
    std::string out;
    FILE *p = popen(cmd.c_str(), "r");
    if (!p)
        return out;
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), p)) > 0)
        out.append(buf, n);
    pclose(p);
    return out;
}

// The image of a kind, made once per test process in the temporary folder. An image that can't be made
// fails the test that asked for it (no FUSE, no ntfs-3g): it never passes empty.
inline std::string image_path(const image_kind_t &s) {
    static std::map<std::string, std::string> made;
    auto it = made.find(s.name);
    if (it != made.end())
        return it->second;
    fs::path dir = fs::temp_directory_path() / "sw-ntfs-images";
    fs::create_directories(dir);
    std::string img = (dir / (std::string(s.name) + ".img")).string();
    std::string cmd = "bash '" + tests_ntfs_folder() + "/make-image.sh' '" + img + "' " +
                      std::to_string(s.cluster) + " " + std::to_string(s.sector) + (s.frag ? " frag" : "") +
                      " 2>&1";
    std::string out = run_text(cmd + "; echo \"exit=$?\"");
    if (out.find("exit=0") == std::string::npos) {
        ADD_FAILURE() << "could not make the test image " << s.name << ":\n" << out;
        return "";
    }
    made[s.name] = img;
    return img;
}

// One name of one file as ntfsls lists it.
struct oracle_entry_t {
    uint64_t inode, parent;
    std::string name;
    uint64_t size;
    bool folder;
    std::string path; // from the root, "/docs/readme.txt"
};

// The whole listing of an image, without the file system's own files.
inline std::vector<oracle_entry_t> oracle_listing(const std::string &img) {
    std::vector<oracle_entry_t> out;
    std::string text = run_text("ntfsls -R -l -i -a -F '" + img + "' 2>/dev/null");
    std::map<std::string, uint64_t> inode_of = {{"/", 5}};
    std::string dir;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string::npos)
            end = text.size();
        std::string line = text.substr(pos, end - pos);
        pos = end + 1;
        if (line.empty())
            continue;
        if (line[0] == '/' && line.back() == ':') {
            // With -F the folder headers end in the classifying '/' too: "/docs/:".
            dir = line.substr(0, line.size() - 1);
            if (dir.size() > 1 && dir.back() == '/')
                dir.pop_back();
            continue;
        }
        unsigned long long inode, size;
        char mon[8], day[8], hm[8], year[8];
        int used = 0;
        if (sscanf(line.c_str(), "%llu %llu %7s %7s %7s %7s %n", &inode, &size, mon, day, hm, year, &used) <
                6 ||
            !used)
            continue;
        std::string name = line.substr((size_t) used);
        bool folder = !name.empty() && name.back() == '/';
        if (folder)
            name.pop_back();
        if (name == "." || name == ".." || (dir == "/" && name[0] == '$'))
            continue;
        std::string path = (dir == "/" ? "" : dir) + "/" + name;
        if (folder)
            inode_of[path] = inode;
        out.push_back({inode, inode_of.count(dir) ? inode_of[dir] : 0, name, size, folder, path});
    }
    return out;
}

// What ntfsinfo says of one record's $STANDARD_INFORMATION: times in seconds since 1970 (UTC) and the
// attribute word.
struct oracle_info_t {
    int64_t created = -1, modified = -1, accessed = -1;
    uint32_t attributes = 0;
    bool ok = false;
};

inline int64_t oracle_time(const std::string &line) {
    size_t c = line.find(":\t");
    if (c == std::string::npos)
        return -1;
    std::string v = line.substr(c + 2);
    while (!v.empty() && (v[0] == ' ' || v[0] == '\t'))
        v.erase(0, 1);
    struct tm tm = {};
    if (!strptime(v.c_str(), "%a %b %d %H:%M:%S %Y", &tm))
        return -1;
    return (int64_t) timegm(&tm);
}

inline oracle_info_t oracle_info(const std::string &img, uint64_t inode) {
    oracle_info_t o;
    std::string text = run_text("ntfsinfo -i " + std::to_string(inode) + " '" + img + "' 2>/dev/null");
    size_t si = text.find("$STANDARD_INFORMATION");
    if (si == std::string::npos)
        return o;
    size_t next = text.find("Dumping attribute", si + 1);
    std::string part = text.substr(si, next == std::string::npos ? std::string::npos : next - si);
    size_t p = 0;
    while (p < part.size()) {
        size_t e = part.find('\n', p);
        if (e == std::string::npos)
            e = part.size();
        std::string line = part.substr(p, e - p);
        p = e + 1;
        if (line.find("File Creation Time:") != std::string::npos)
            o.created = oracle_time(line);
        else if (line.find("File Altered Time:") != std::string::npos)
            o.modified = oracle_time(line);
        else if (line.find("Last Accessed Time:") != std::string::npos)
            o.accessed = oracle_time(line);
        else if (line.find("File attributes:") != std::string::npos) {
            size_t h = line.find("(0x");
            if (h != std::string::npos)
                o.attributes = (uint32_t) strtoul(line.c_str() + h + 1, nullptr, 16);
        }
    }
    o.ok = o.created >= 0 && o.modified >= 0 && o.accessed >= 0;
    return o;
}

// A FILETIME as whole seconds since 1970, as ntfsinfo prints it.
inline int64_t filetime_seconds(uint64_t ft) {
    return (int64_t) (ft / 10000000ull) - 11644473600ll;
}
