#pragma once

// Reads several files in parallel and returns their lines in the order of the files.

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
    /// Limit of waiting chunks; the file whose chunks next() returns may add a few.
    static constexpr std::size_t MOST_CHUNKS = 160;

    /// `paths` are the files of one log, oldest first; `read_so_far` counts their bytes, may be null and outlives
    /// the unpacker.
    Unpacker(std::vector<std::string> paths, unsigned threads, std::atomic<std::uint64_t> *read_so_far,
             std::size_t most_chunks = MOST_CHUNKS);
    /// Stops the threads without reading the rest of the files.
    ~Unpacker();
    Unpacker(const Unpacker &) = delete;
    Unpacker &operator=(const Unpacker &) = delete;

    /// The next chunk, valid until the next call; null after the last. Each file ends with a chunk that is_last.
    const Chunk *next();

  private:
    /// Size of the front compared to recognise a file that begins with all of the previous one.
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
    std::size_t head_ = 0;  ///< the file whose chunks next() returns
    std::size_t waiting_ = 0;
    bool is_stopped_ = false;
    std::vector<std::unique_ptr<Chunk>> spare_;
    std::unique_ptr<Chunk> given_;
    std::vector<std::thread> threads_;
};

/// The number of processors that this process may use, at most two: more threads would need more memory.
unsigned threads_to_use();

} // namespace vlog
