#pragma once

// The records of single issues in the status log.

#include "station.h"
#include "station_life.h"
#include "status_log.h"

#include <sstream>
#include <string>
#include <vector>

/// A record without its index.
struct IssueRecord {
    std::string stamp;
    std::string issue;
    std::string text; ///< label and value: "OK 0", "WARN NaN"
};

inline std::vector<IssueRecord> issue_records(const Station &station) {
    std::vector<IssueRecord> records;
    for (const std::string &line : records_in(station.read(STATUS_LOG))) {
        std::istringstream fields(line);
        IssueRecord record;
        std::string index;
        std::string value;
        std::getline(fields, record.stamp, '\t');
        fields >> record.text >> record.issue >> index >> value;
        record.text += " " + value;
        records.push_back(record);
    }
    return records;
}

/// All records of an issue.
inline std::vector<std::string> records_of(const Station &station, const std::string &issue) {
    std::vector<std::string> texts;
    for (const IssueRecord &record : issue_records(station)) {
        if (record.issue == issue) {
            texts.push_back(record.text);
        }
    }
    return texts;
}

/// The issue's record of the last pass; empty without one.
inline std::string last_record_of(const Station &station, const std::string &issue) {
    const std::string now = stamp_of(station.clock());
    for (const IssueRecord &record : issue_records(station)) {
        if (record.issue == issue && record.stamp == now) {
            return record.text;
        }
    }
    return "";
}
