// The store and its files against the model, with random commands.
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include "tests/model/generators.h"
#include "tests/model/store_driver.h"

RC_GTEST_PROP(StoreModelTest, StoreAndFilesDoAsTheModelDoes, ()) {
  const Commands commands = *rc::gen::container<Commands>(AnyCommand());
  CStoreDriver driver;
  driver.Run(commands);
}
