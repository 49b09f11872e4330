#include "tests/model/generators.h"

#include <utility>
#include <vector>

namespace {

using rc::Gen;

Gen<int> Below(int iEnd) {
  return rc::gen::inRange(0, iEnd);
}

Gen<int> OneOf(std::vector<int> vecValues) {
  return rc::gen::elementOf(std::move(vecValues));
}

Gen<Command> AnyIntake() {
  return rc::gen::apply(
      [](int iSender, int iPriv, int iMsgType, int iPayload, int iSaveStatus, int bForceSave) {
        return Intake(iSender, iPriv, iMsgType, iPayload, iSaveStatus, bForceSave);
      },
      Below(kSenders), OneOf({0, 1, 2, 3, 10, 11, 12, 13, 7, 14}), rc::gen::inRange(1, 4), Below(kPayloads),
      rc::gen::weightedElement<int>({{7, 1}, {1, 0}}), Below(2));
}

Gen<Command> AnyConfigure() {
  const auto setting = [](int iSetting, std::vector<int> vecValues) {
    return rc::gen::map(OneOf(std::move(vecValues)), [iSetting](int iValue) { return Configure(iSetting, iValue); });
  };
  return rc::gen::oneOf(setting(kFlow, {0, 1, 2, 7}), setting(kCountLimit, {500000, 0, 1, 2, 4, 8}),
                        setting(kLocalCountLimit, {100000, 0, 1, 2, 5}), setting(kCover, {0, 1}),
                        setting(kFileSize, {kNoLimit, 0, 1}), setting(kTotalSize, {kNoLimit, 0}),
                        setting(kFreeSpace, {1, 0, -1}));
}

}  // namespace

Gen<Command> AnyCommand() {
  using rc::gen::apply;
  using rc::gen::just;
  using rc::gen::map;
  return rc::gen::weightedOneOf<Command>(
      {{24, AnyIntake()},
       {2, apply(IntakeAgain, rc::gen::inRange(0, 1000), Below(kSenders), Below(kPayloads))},
       {20, just(Take())},
       {20, apply(Settle, Below(kPicks), rc::gen::inRange(0, 1000), Below(kOutcomes))},
       {5, just(Save())},
       {7, just(Load())},
       {5, just(Sweep())},
       {7, map(OneOf({1, 30, 59, 60, 14399, 14400, 14401, -100}), Advance)},
       {9, AnyConfigure()},
       {4, apply(Spoil, Below(kSenders), Below(kSpoilings))},
       {8, map(rc::gen::inRange(1, static_cast<int>(kFailures)), Fail)},
       {4, map(Below(2), Restart)}});
}
