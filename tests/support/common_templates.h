#pragma once

// Templates that most tests use are compiled once, which saves an eighth of the time that the tests take to build.
// The header is part of the tests' precompiled header; no test includes it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

extern template class std::basic_string<char>;
extern template class std::vector<std::string>;
extern template class std::set<std::string>;
extern template class std::unique_ptr<std::string>;
extern template class std::unique_ptr<std::stringstream>;
extern template class testing::Matcher<const std::string &>;
extern template class testing::Matcher<const std::vector<std::string> &>;
extern template class std::vector<testing::Matcher<const std::string &>>;
extern template std::string testing::PrintToString(const int &);
extern template std::string testing::PrintToString(const std::string &);
extern template std::string testing::PrintToString(const char *const &);
