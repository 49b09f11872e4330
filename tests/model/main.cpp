// RC_PARAMS, read by RapidCheck, says what to run and how: "seed=1 max_success=1000" or a text that a failing run has
// printed. Without it the seed is a fresh one, which RapidCheck prints, and the number of cases is the build's.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

int main(int iArguments, char** ppArguments) {
  testing::InitGoogleTest(&iArguments, ppArguments);
  const char* pszParams = getenv("RC_PARAMS");
  std::string strParams = pszParams == nullptr ? "" : pszParams;
  if (strParams.find("max_success") == std::string::npos) {
    strParams += " max_success=" + std::to_string(MODEL_CASES);
    setenv("RC_PARAMS", strParams.c_str(), 1);
  }
  return RUN_ALL_TESTS();
}
