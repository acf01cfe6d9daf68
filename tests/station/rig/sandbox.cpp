#include "sandbox.h"

#include "handle.h"
#include "rig_failure.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace {

void write_own(const char *path, const std::string &text) {
    const Descriptor file(open(path, O_WRONLY | O_CLOEXEC));
    if (!file || write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        rig_failure_of(path);
    }
}

/// Makes the user root in its user namespace.
void become_root_of(uid_t uid, gid_t gid) {
    write_own("/proc/self/setgroups", "deny");
    write_own("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    write_own("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

void leave_namespaces() {
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    if (uid == 0 && unshare(CLONE_NEWNS) == 0) {
        return;
    }
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        rig_failure_of("a mount namespace needs root or user namespaces: unshare");
    }
    become_root_of(uid, gid);
}

void make(const Mount &mount) {
    const char *target = mount.target.c_str();
    if (mount.memory != 0) {
        const std::string size = "size=" + std::to_string(mount.memory);
        if (::mount("tmpfs", target, "tmpfs", 0, size.c_str()) != 0) {
            rig_failure_of("disk in memory " + mount.target);
        }
    } else if (!mount.source.empty()) {
        if (::mount(mount.source.c_str(), target, nullptr, MS_BIND | MS_REC, nullptr) != 0) {
            rig_failure_of("mount " + mount.target);
        }
    } else if (::mount(target, target, nullptr, MS_BIND, nullptr) != 0 ||
               ::mount(nullptr, target, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
        rig_failure_of("read-only " + mount.target);
    }
}

} // namespace

void enter_sandbox(const Sandbox &sandbox) {
    leave_namespaces();
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        rig_failure_of("private mounts");
    }
    for (const Mount &mount : sandbox.mounts) {
        make(mount);
    }
    if (chroot(sandbox.root.c_str()) != 0) {
        rig_failure_of("chroot " + sandbox.root);
    }
    if (chdir(sandbox.directory.c_str()) != 0) {
        rig_failure_of("chdir " + sandbox.directory);
    }
}
