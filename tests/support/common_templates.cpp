#include "common_templates.h"

template class std::basic_string<char>;
template class std::vector<std::string>;
template class std::set<std::string>;
template class std::unique_ptr<std::string>;
template class std::unique_ptr<std::stringstream>;
template class testing::Matcher<const std::string &>;
template class testing::Matcher<const std::vector<std::string> &>;
template class std::vector<testing::Matcher<const std::string &>>;
template std::string testing::PrintToString(const int &);
template std::string testing::PrintToString(const std::string &);
template std::string testing::PrintToString(const char *const &);
