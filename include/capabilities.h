#pragma once

// The Linux capabilities of the calling thread. What the kernel refuses is left as it is.

/// Takes CAP_SYS_RAWIO out of the effective set. Called before there are other threads, which start with the
/// same set.
void capabilities_lower_raw_io();

/// CAP_SYS_RAWIO is effective while it lives, if it is permitted, and not afterwards.
class RaisedRawIo {
  public:
    RaisedRawIo();
    ~RaisedRawIo();
    RaisedRawIo(const RaisedRawIo &) = delete;
    RaisedRawIo(RaisedRawIo &&) = delete;
    RaisedRawIo &operator=(const RaisedRawIo &) = delete;
    RaisedRawIo &operator=(RaisedRawIo &&) = delete;
};

/// Empties the ambient and the inheritable set, so that a program that the process becomes has no capability
/// unless its user is root. For a child; async-signal-safe.
void capabilities_keep_from_programs();
