#pragma once

// The Linux capabilities of the calling thread. A change that the kernel refuses is ignored.

/// Removes CAP_SYS_RAWIO from the effective set. Called before other threads exist, because they inherit the set.
void capabilities_lower_raw_io();

/// Makes CAP_SYS_RAWIO effective for its lifetime, if the permitted set has it.
class RaisedRawIo {
  public:
    RaisedRawIo();
    ~RaisedRawIo();
    RaisedRawIo(const RaisedRawIo &) = delete;
    RaisedRawIo(RaisedRawIo &&) = delete;
    RaisedRawIo &operator=(const RaisedRawIo &) = delete;
    RaisedRawIo &operator=(RaisedRawIo &&) = delete;
};

/// Clears the ambient and the inheritable set, so that a program run by exec gets no capability unless its
/// user is root. For a child; async-signal-safe.
void capabilities_keep_from_programs();
