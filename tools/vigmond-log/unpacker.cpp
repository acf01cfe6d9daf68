#include "unpacker.h"

#include "source.h"

#include <algorithm>
#include <sched.h>
#include <sys/stat.h>

namespace vlog {

namespace {

/// Reads until the buffer is full or the text ends.
std::size_t read_fully(Source *source, std::span<char> buffer) {
    std::size_t count = 0;
    while (count < buffer.size()) {
        const std::size_t more = source->read(buffer.subspan(count));
        if (more == 0) {
            break;
        }
        count += more;
    }
    return count;
}

bool can_be_reopened(const std::string &path) {
    struct stat status {};
    return path != "-" && stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

/// The length of the text of `first` if `second` begins with all of it, otherwise 0.
std::size_t common_front(const std::string &first, const std::string &second) {
    constexpr std::size_t piece = 16384;
    Source a(first);
    Source b(second);
    std::vector<char> text_a(piece);
    std::vector<char> text_b(piece);
    for (std::size_t length = 0;;) {
        const std::size_t count = read_fully(&a, text_a);
        if (count == 0) {
            return a.problem().empty() ? length : 0;
        }
        if (read_fully(&b, std::span(text_b).first(count)) < count ||
            !std::equal(text_a.begin(), text_a.begin() + static_cast<std::ptrdiff_t>(count), text_b.begin())) {
            return 0;
        }
        length += count;
    }
}

} // namespace

unsigned threads_to_use() {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof(set), &set) != 0) {
        return 1;
    }
    return static_cast<unsigned>(std::clamp(CPU_COUNT(&set), 1, 2));
}

Unpacker::Unpacker(std::vector<std::string> paths, unsigned threads, std::atomic<std::uint64_t> *read_so_far,
                   std::size_t most_chunks)
    : files_(paths.size()), read_so_far_(read_so_far), most_chunks_(most_chunks) {
    for (std::size_t number = 0; number < paths.size(); ++number) {
        files_[number].path = std::move(paths[number]);
    }
    for (unsigned count = 0; count < threads; ++count) {
        threads_.emplace_back([this] { work(); });
    }
}

Unpacker::~Unpacker() {
    {
        const Lock lock(lock_);
        is_stopped_ = true;
    }
    changed_.notify_all();
    for (std::thread &thread : threads_) {
        thread.join();
    }
}

void Unpacker::work() {
    for (;;) {
        std::size_t number = 0;
        {
            const Lock lock(lock_);
            if (is_stopped_ || begun_ == files_.size()) {
                return;
            }
            number = begun_++;
        }
        read_file(number);
    }
}

/// The file being read in order always has some room, so that it makes progress; the others share the rest.
bool Unpacker::has_room(std::size_t number) const {
    constexpr std::size_t room_of_the_head = 8;
    return waiting_ < most_chunks_ || (number == head_ && files_[number].ready.size() < room_of_the_head);
}

std::unique_ptr<Chunk> Unpacker::new_chunk(std::size_t number) {
    const Lock lock(lock_);
    std::unique_ptr<Chunk> chunk;
    if (spare_.empty()) {
        chunk = std::make_unique<Chunk>();
        chunk->items.reserve(Chunk::MOST_ITEMS);
    } else {
        chunk = std::move(spare_.back());
        spare_.pop_back();
        chunk->clear();
    }
    chunk->file = number;
    return chunk;
}

/// False if the reader has stopped.
bool Unpacker::give(std::unique_ptr<Chunk> chunk) {
    const std::size_t number = chunk->file;
    Lock lock(lock_);
    changed_.wait(lock, [this, number] { return is_stopped_ || has_room(number); });
    files_[number].ready.push_back(std::move(chunk));
    ++waiting_;
    changed_.notify_all();
    return !is_stopped_;
}

/// Stores the front of a file and returns how much of its text the previous file already has. A power cut during a
/// rotation leaves a log and its compressed copy, and the daemon then appends to the log.
std::size_t Unpacker::set_front(std::size_t number, std::string_view text) {
    std::string before;
    {
        Lock lock(lock_);
        files_[number].front = text.substr(0, FRONT_SIZE);
        files_[number].has_front = true;
        changed_.notify_all();
        if (number == 0) {
            return 0;
        }
        changed_.wait(lock, [this, number] { return is_stopped_ || files_[number - 1].has_front; });
        before = files_[number - 1].front;
    }
    const std::string &older = files_[number - 1].path;
    const std::string &path = files_[number].path;
    const bool is_like_it = !before.empty() && text.starts_with(before);
    return is_like_it && can_be_reopened(older) && can_be_reopened(path) ? common_front(older, path) : 0;
}

void Unpacker::read_file(std::size_t number) {
    Source source(files_[number].path, read_so_far_);
    TextReader reader;
    std::vector<char> buffer(2 * TextReader::LONGEST_LINE);
    std::size_t held = read_fully(&source, std::span(buffer).first(FRONT_SIZE));
    std::unique_ptr<Chunk> chunk = new_chunk(number);
    std::size_t repeated = set_front(number, {buffer.data(), held});
    chunk->repeated_bytes = repeated;
    for (bool is_end = held == 0; !is_end;) {
        const std::size_t count = source.read(std::span(buffer).subspan(held));
        is_end = count == 0;
        held += count;
        const std::size_t skipped = std::min(repeated, held);
        repeated -= skipped;
        std::size_t used = skipped;
        for (std::size_t more = 1; more > 0;) {
            more = reader.read({buffer.data() + used, held - used}, chunk.get());
            used += more;
            if (chunk->is_full()) {
                if (!give(std::move(chunk))) {
                    return;
                }
                chunk = new_chunk(number);
                more = 1;
            }
        }
        std::copy(buffer.begin() + static_cast<std::ptrdiff_t>(used),
                  buffer.begin() + static_cast<std::ptrdiff_t>(held), buffer.begin());
        held -= used;
    }
    reader.finish({buffer.data(), held}, chunk.get());
    chunk->is_last = true;
    chunk->problem = source.problem();
    give(std::move(chunk));
}

const Chunk *Unpacker::next() {
    Lock lock(lock_);
    if (given_ != nullptr) {
        spare_.push_back(std::move(given_));
    }
    if (head_ == files_.size()) {
        return nullptr;
    }
    changed_.wait(lock, [this] { return !files_[head_].ready.empty(); });
    given_ = std::move(files_[head_].ready.front());
    files_[head_].ready.pop_front();
    --waiting_;
    if (given_->is_last) {
        ++head_;
    }
    changed_.notify_all();
    return given_.get();
}

} // namespace vlog
