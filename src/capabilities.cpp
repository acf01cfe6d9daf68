#include "capabilities.h"

#include <array>
#include <cstdint>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

/// The capability sets; each element holds 32 capabilities.
struct Sets {
    __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> data{};

    bool read() { return syscall(SYS_capget, &header, data.data()) == 0; }
    void write() { syscall(SYS_capset, &header, data.data()); }
};

void set_raw_io(bool effective) {
    Sets sets;
    if (sets.read()) {
        __user_cap_data_struct &set = sets.data[CAP_TO_INDEX(CAP_SYS_RAWIO)];
        constexpr auto raw_io = static_cast<std::uint32_t>(CAP_TO_MASK(CAP_SYS_RAWIO));
        set.effective = effective ? set.effective | (set.permitted & raw_io) : set.effective & ~raw_io;
        sets.write();
    }
}

} // namespace

void capabilities_lower_raw_io() { set_raw_io(false); }

RaisedRawIo::RaisedRawIo() { set_raw_io(true); }

RaisedRawIo::~RaisedRawIo() { set_raw_io(false); }

void capabilities_keep_from_programs() {
    prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
    Sets sets;
    if (sets.read()) {
        for (__user_cap_data_struct &set : sets.data) {
            set.inheritable = 0;
        }
        sets.write();
    }
}
