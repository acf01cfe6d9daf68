#include "value_counts.h"

#include "spool.h"

#include <algorithm>

namespace vlog {

namespace {

/// Maps signed numbers to unsigned ones in the same order.
std::uint32_t ordered(std::int32_t value) { return static_cast<std::uint32_t>(value) ^ 0x80000000U; }

} // namespace

bool Spill::write(const std::vector<ValueCount> &counts) {
    if (!file_) {
        file_ = temporary_file();
    }
    return file_ && std::fwrite(counts.data(), sizeof(ValueCount), counts.size(), file_.get()) == counts.size();
}

std::int32_t Spill::value_of(const Request &request) { return static_cast<std::int32_t>(request.found ^ 0x80000000U); }

/// Finds the next eight bits of each request: counts the values by these bits, then selects those of the rank.
bool Spill::pass(unsigned number, std::vector<Request> *requests) {
    const unsigned shift = 24 - 8 * number;
    std::vector<std::array<std::uint64_t, 256>> counts(requests->size());
    std::vector<std::vector<std::size_t>> of_check; // the places of its requests
    for (std::size_t at = 0; at < requests->size(); ++at) {
        of_check.resize(std::max<std::size_t>(of_check.size(), (*requests)[at].check + 1));
        of_check[(*requests)[at].check].push_back(at);
    }
    std::array<ValueCount, 256> buffer{};
    if (std::fseek(file_.get(), 0, SEEK_SET) != 0) {
        return false;
    }
    while (const std::size_t count = std::fread(buffer.data(), sizeof(ValueCount), buffer.size(), file_.get())) {
        for (std::size_t each = 0; each < count; ++each) {
            const std::uint32_t value = ordered(buffer[each].value);
            for (std::size_t at = 0; buffer[each].check < of_check.size() && at < of_check[buffer[each].check].size();
                 ++at) {
                const std::size_t place = of_check[buffer[each].check][at];
                if (number == 0 || (value ^ (*requests)[place].found) >> (shift + 8) == 0) {
                    counts[place][value >> shift & 255] += buffer[each].count;
                }
            }
        }
    }
    for (std::size_t at = 0; at < requests->size(); ++at) {
        Request &request = (*requests)[at];
        std::uint32_t bits = 0;
        while (bits < 255 && request.rank > counts[at][bits]) {
            request.rank -= counts[at][bits++];
        }
        request.found |= bits << shift;
    }
    return std::ferror(file_.get()) == 0;
}

bool Spill::find(std::vector<Request> *requests) {
    if (!file_ || std::fflush(file_.get()) != 0) {
        return false;
    }
    for (unsigned number = 0; number < PASSES; ++number) {
        if (!pass(number, requests)) {
            return false;
        }
    }
    return true;
}

void ValueCounts::grow() {
    const std::vector<ValueCount> before = used();
    const std::size_t size = places_.empty() ? 32 : 2 * places_.size();
    places_.assign(size, {});
    for (const ValueCount &each : before) {
        places_[place_of(each.value)] = each;
    }
}

/// Counts a value that is not in the table.
bool ValueCounts::add_new(std::int32_t value) {
    if (used_ == MOST_VALUES) {
        return false;
    }
    if (2 * used_ >= places_.size()) {
        grow();
    }
    places_[place_of(value)] = {.value = value, .count = 1};
    ++used_;
    least_ = total_ == 0 ? value : std::min(least_, value);
    greatest_ = total_ == 0 ? value : std::max(greatest_, value);
    ++total_;
    return true;
}

std::vector<ValueCount> ValueCounts::used() const {
    std::vector<ValueCount> found;
    std::copy_if(places_.begin(), places_.end(), std::back_inserter(found),
                 [](const ValueCount &each) { return each.count > 0; });
    return found;
}

bool ValueCounts::drain(std::uint32_t check, Spill *spill) {
    std::vector<ValueCount> all = used();
    for (ValueCount &each : all) {
        each.check = check;
    }
    places_.clear();
    used_ = 0;
    is_spilled_ = true;
    return spill->write(all);
}

std::optional<std::int32_t> ValueCounts::at_rank(std::uint64_t rank) const {
    std::vector<ValueCount> all = used();
    std::sort(all.begin(), all.end(), [](const ValueCount &a, const ValueCount &b) { return a.value < b.value; });
    for (const ValueCount &each : all) {
        if (rank <= each.count) {
            return each.value;
        }
        rank -= each.count;
    }
    return std::nullopt;
}

} // namespace vlog
