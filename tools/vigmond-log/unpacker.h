#pragma once

// Reads several files side by side and gives their lines out in the files' order.

#include "chunk.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vlog {

class Unpacker {
  public:
    /// So many chunks wait at a time, whatever the files hold, and a few of the file that is read in order.
    static constexpr std::size_t MOST_CHUNKS = 160;

    /// `paths` are the files of one log, oldest first; `read_so_far` counts their bytes, may be null and outlives
    /// the unpacker.
    Unpacker(std::vector<std::string> paths, unsigned threads, std::atomic<std::uint64_t> *read_so_far,
             std::size_t most_chunks = MOST_CHUNKS);
    /// Does not wait for more of the files than what is being read.
    ~Unpacker();
    Unpacker(const Unpacker &) = delete;
    Unpacker &operator=(const Unpacker &) = delete;

    /// The next chunk, valid until the next call; null after the last. Each file ends with a chunk that is_last.
    const Chunk *next();

  private:
    /// The front of a file, by which a file that begins with all of the one before is recognised.
    static constexpr std::size_t FRONT_SIZE = 256;
    struct File {
        std::string path;
        std::string front;
        bool has_front = false;
        std::deque<std::unique_ptr<Chunk>> ready;
    };
    using Lock = std::unique_lock<std::mutex>;

    void work();
    void read_file(std::size_t number);
    std::size_t set_front(std::size_t number, std::string_view text);
    std::unique_ptr<Chunk> new_chunk(std::size_t number);
    bool give(std::unique_ptr<Chunk> chunk);
    [[nodiscard]] bool has_room(std::size_t number) const;

    std::vector<File> files_;
    std::atomic<std::uint64_t> *read_so_far_;
    std::size_t most_chunks_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::size_t begun_ = 0; ///< files that threads have taken
    std::size_t head_ = 0;  ///< the file whose chunks are given out
    std::size_t waiting_ = 0;
    bool is_stopped_ = false;
    std::vector<std::unique_ptr<Chunk>> spare_;
    std::unique_ptr<Chunk> given_;
    std::vector<std::thread> threads_;
};

/// How many processors this process may use, at most two: more would need more memory.
unsigned threads_to_use();

} // namespace vlog
