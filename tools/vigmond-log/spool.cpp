#include "spool.h"

#include <cstdlib>
#include <string>
#include <sys/resource.h>

namespace vlog {

FileHandle temporary_file() {
    const char *const folder = std::getenv("TMPDIR");
    const std::string path = folder == nullptr || *folder == '\0' ? "/tmp" : folder;
    Descriptor file(open(path.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (!file) { // not all file systems support unnamed files
        std::string name = path + "/vigmond-log.XXXXXX";
        file = Descriptor(mkostemp(name.data(), O_CLOEXEC));
        if (file) {
            unlink(name.c_str());
        }
    }
    return stream_on(std::move(file), "w+");
}

void allow_many_files() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

} // namespace vlog
