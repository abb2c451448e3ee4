/*
 * The sandbox root of a fuzz target that writes files: a fresh directory,
 * on a memory-backed file system when possible (the targets rewrite files on
 * every input), removed with everything below it when the fuzzer exits
 * normally.
 */
#ifndef CHMGR_FUZZ_SANDBOX_H
#define CHMGR_FUZZ_SANDBOX_H

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <initializer_list>
#include <string>

namespace fuzz_sandbox {

/* Creates `path` and every missing directory above it. */
inline void make_dirs(const std::string &path) {
    for (size_t i = 1; i <= path.size(); ++i)
        if (i == path.size() || path[i] == '/') mkdir(path.substr(0, i).c_str(), 0755);
}

inline std::string &root_to_remove() {
    static std::string root;
    return root;
}

inline int remove_entry(const char *path, const struct stat *, int, struct FTW *) { return remove(path); }

inline void remove_root() {
    if (!root_to_remove().empty()) nftw(root_to_remove().c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

/* "<base>/<prefix>-XXXXXX" in the first of `bases` where it can be made,
 * removed at exit; "" when none can be made. */
inline std::string make_root(const char *prefix, std::initializer_list<const char *> bases = {"/dev/shm", "/tmp"}) {
    for (const char *base : bases) {
        std::string path = std::string(base) + "/" + prefix + "-XXXXXX";
        if (!mkdtemp(path.data())) continue;
        root_to_remove() = path;
        atexit(remove_root);
        return path;
    }
    return "";
}

}  // namespace fuzz_sandbox

#endif /* CHMGR_FUZZ_SANDBOX_H */
