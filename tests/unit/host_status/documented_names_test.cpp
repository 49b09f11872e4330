// docs/status.md names what is served, and nothing else.
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>

#include "host/status/metrics.h"
#include "host/status/status_json.h"
#include "status_test_support.h"

namespace {

using nlohmann::json;
using Names = std::set<std::string>;

std::string Page() {
  std::ostringstream page;
  page << std::ifstream(QM_DOCS "/status.md").rdbuf();
  return page.str();
}

// The part from a text on, up to the next one.
std::string PartOf(const std::string& strPage, const std::string& strFrom, const std::string& strTo) {
  const size_t uFrom = strPage.find(strFrom);
  EXPECT_NE(uFrom, std::string::npos) << strFrom;
  return uFrom == std::string::npos ? "" : strPage.substr(uFrom, strPage.find(strTo, uFrom) - uFrom);
}

std::vector<std::string> Matches(const std::string& strText, const char* pszPattern) {
  const std::regex pattern(pszPattern);
  std::vector<std::string> vecFound;
  for (std::sregex_iterator it(strText.begin(), strText.end(), pattern); it != std::sregex_iterator(); ++it) {
    vecFound.push_back((*it)[1]);
  }
  return vecFound;
}

// The names in the first column of a table; one that begins with a dot goes on from the name before it.
Names FirstColumn(const std::string& strTable) {
  Names setNames;
  for (const std::string& strCell : Matches(strTable, R"(\n\| (`[^|]*) \|)")) {
    std::string strObject;
    for (const std::string& strName : Matches(strCell, "`([a-z_.]+)`")) {
      if (strName[0] != '.') {
        strObject = strName.substr(0, strName.find('.'));
      }
      setNames.insert(strName[0] == '.' ? strObject + strName : strName);
    }
  }
  return setNames;
}

StatusSnapshot WholeSnapshot() {
  StatusSnapshot snapshot = OutageSnapshot();
  snapshot.optComponent = ComponentStatistics{};
  return snapshot;
}

TEST(DocumentedNamesTest, TheMetrics) {
  Names setServed;
  for (const auto& family : StatusMetrics(WholeSnapshot())) {
    setServed.insert(family.name);
  }
  Names setTold;
  for (const std::string& strName : Matches(PartOf(Page(), "## Metrics", "\n## "), "`(qmhost_[a-z_]*[a-z])`")) {
    setTold.insert(strName);
  }
  EXPECT_EQ(setTold, setServed);
}

TEST(DocumentedNamesTest, TheStatus) {
  const json document = json::parse(StatusJson(WholeSnapshot()));
  Names setServed;
  for (const auto& [strName, value] : document.items()) {
    if (!value.is_object() || strName == "rates") {  // whose two stand in the row of their own
      setServed.insert(strName);
      continue;
    }
    for (const auto& [strField, field] : value.items()) {
      setServed.insert(strName + "." + strField);
    }
  }
  Names setTold = FirstColumn(PartOf(Page(), "`/api/status`:", "`/api/history`, arrays"));
  for (const char* pszMayBeNull : {"held", "cache", "component"}) {
    EXPECT_EQ(setTold.erase(pszMayBeNull), 1U) << pszMayBeNull;
  }
  EXPECT_EQ(setTold, setServed);
}

TEST(DocumentedNamesTest, TheHistory) {
  const json document = json::parse(HistoryJson({}, At({}), {}, kFineStep, kFineSpan));
  Names setServed;
  for (const auto& [strName, value] : document.items()) {
    setServed.insert(strName);
  }
  EXPECT_EQ(FirstColumn(PartOf(Page(), "`/api/history`, arrays", "\n## ")), setServed);
}

}  // namespace
