// Instructions a record on each path, counted by callgrind. One thread and a clock that stands still: the same
// instructions each time, as far as the libraries below do the same.
//
// Usage, under callgrind with collection off at the start: instructions_bench DIRECTORY [PATH]
// The directory exists and is empty. Each path, or the named one alone, ends with a dump whose trigger is "PATH
// RECORDS". bench/instructions/count runs it.
#include <valgrind/valgrind.h>

#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>

#include "bench/instructions/counted_path.h"
#include "bench/instructions/host_road.h"
#include "bench/instructions/single_thread_component.h"
#include "bench/support/installation.h"
#include "host/link/record_line.h"

namespace {

enum DataFlow : int { kWriteAtIntake = 0, kWriteAtSave = 1, kMemoryOnly = 2 };
// Fewer than may be in flight.
constexpr unsigned int kBatch = 64;
// Enough for the tables and files of a first record to weigh nothing.
constexpr unsigned int kMemoryRecords = 32 * kBatch;
// A file's delete compacts it each hundredth time.
constexpr unsigned int kRowRecords = 4 * kBatch;
constexpr unsigned int kBatchedRecords = 32 * kBatch;

void Take(CSingleThreadComponent& component, unsigned int uRecords) {
  for (unsigned int i = 0; i < uRecords; ++i) {
    component.TakeRecord();
  }
}

void Send(CSingleThreadComponent& component, unsigned int uRecords) {
  for (unsigned int i = 0; i < uRecords; ++i) {
    component.SendRecord();
  }
}

void Settle(CSingleThreadComponent& component, CSendRecorder& recorder) {
  for (const uint64_t u64DataId : recorder.Sent()) {
    component.Settle(u64DataId);
  }
  recorder.Forget();
}

// Intake, dispatch and settlement of uRecords records; the paths' names end in strSuffix.
void CountSteps(CSendRecorder& recorder, unsigned int uRecords, const std::string& strSuffix) {
  CSingleThreadComponent component(recorder);
  Take(component, kBatch);
  Send(component, kBatch);
  Settle(component, recorder);

  const CCountedPath intake("intake_" + strSuffix);
  {
    const CCountedPath::CSection counted(intake);
    Take(component, uRecords);
  }
  intake.Report(uRecords);

  const CCountedPath dispatch("dispatch_" + strSuffix);
  for (unsigned int i = 0; i < uRecords; i += kBatch) {
    {
      const CCountedPath::CSection counted(dispatch);
      Send(component, kBatch);
    }
    Settle(component, recorder);
  }
  dispatch.Report(uRecords);

  const CCountedPath settlement("settlement_" + strSuffix);
  Take(component, uRecords);
  for (unsigned int i = 0; i < uRecords; i += kBatch) {
    Send(component, kBatch);
    const CCountedPath::CSection counted(settlement);
    Settle(component, recorder);
  }
  settlement.Report(uRecords);
}

void CountSaveAndLoad(CSendRecorder& recorder) {
  const CCountedPath save("save");
  {
    CSingleThreadComponent component(recorder);
    Take(component, kBatchedRecords);
    const CCountedPath::CSection counted(save);
    component.Save();
  }
  save.Report(kBatchedRecords);

  const CCountedPath load("load");
  CSingleThreadComponent component(recorder);
  {
    const CCountedPath::CSection counted(load);
    component.Load();
  }
  load.Report(kBatchedRecords);
  if (component.Held() != kBatchedRecords) {
    throw std::runtime_error("not every saved record was loaded");
  }
}

// From the bytes of a producer's socket through the router into the component, and the answer back into the socket.
void CountHostRoad() {
  CHostRoad road;
  const CSingleThreadComponent component(road.Context());
  const CCountedPath path("host_intake");
  road.WriteFrames(kBatch);
  road.TakeFrames();
  road.ReadAnswers(kBatch);
  for (unsigned int i = 0; i < kMemoryRecords; i += kBatch) {
    road.WriteFrames(kBatch);
    {
      const CCountedPath::CSection counted(path);
      road.TakeFrames();
    }
    road.ReadAnswers(kBatch);
  }
  path.Report(kMemoryRecords);
}

// What the file link makes of a record: its tagged text read, its line of JSON.
void CountLinkLine() {
  const CCountedPath path("link_line");
  const std::string strText =
      "<version=1><dataid=6553f10000000001><priv=1><msgtype=1><guid=3C5E7A91-4A6B-4C8D-8E2F-1032547698BA><product=>"
      "<combo=><end=1><msg=" +
      std::string(kPayloadSize, 'x') + ">";
  CRecordLine line;
  std::string strOut;
  strOut.reserve(2 * strText.size());
  for (unsigned int i = 0; i < kMemoryRecords; ++i) {
    strOut.clear();
    const CCountedPath::CSection counted(path);
    LinkRecord record{kSender, strText, {}, 1700000000000000};
    if (!ParseTaggedText(record.strText, record.tags)) {
      throw std::runtime_error("the tagged text is not read");
    }
    line.Append(strOut, record);
  }
  path.Report(kMemoryRecords);
}

void CountAll(const std::string& strDirectory) {
  const CBenchInstallation installation(strDirectory, "");
  const auto fnConfigure = [&installation](int iDataFlowFlag) {
    installation.Configure("diskfreesize = 0\ndataflowflag = " + std::to_string(iDataFlowFlag) + '\n');
  };
  CSendRecorder recorder;
  fnConfigure(kMemoryOnly);
  CountSteps(recorder, kMemoryRecords, "memory");
  CountHostRoad();
  CountLinkLine();
  fnConfigure(kWriteAtIntake);
  CountSteps(recorder, kRowRecords, "row");
  fnConfigure(kWriteAtSave);
  CountSaveAndLoad(recorder);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3 || RUNNING_ON_VALGRIND == 0) {
    std::fprintf(stderr, "usage: valgrind --tool=callgrind --collect-atstart=no %s DIRECTORY [PATH]\n", argv[0]);
    return 2;
  }
  try {
    if (argc == 3) {
      CCountedPath::CountOnly(argv[2]);
    }
    CountAll(argv[1]);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "instructions_bench: %s\n", error.what());
    return 1;
  }
}
