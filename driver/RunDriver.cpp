#include "driver/RunDriver.hpp"

#include "support/FileSystem.hpp"
#include "support/LogObject.hpp"

namespace whittle {

namespace {

std::unique_ptr<Stripper> createEngine(const RunRequest& request) {
    return stripperClass().stripperForPath(*request.source, request.products, request.factoryVariants,
                                           request.stripOptions);
}

}  // namespace

int runRequest(RunRequest& request) {
    auto engine = createEngine(request);
    if (!engine) {
        Log("XXX ERROR: cannot create stripper.");
        return 22;
    }
    return 0;
}

void saveLog(int status) {
    std::string error;
    writeFileAtomically(kLogFilePath, LogObject::sharedLogger().historicalLog(), error);
    if (status != 0) Log("XXX ERROR: log file in %s", kLogFilePath);
}

int whittleMain(const std::vector<std::string>& arguments) {
    RunRequest request;
    ParseOutcome outcome = parseCommandLine(arguments, request);
    switch (outcome.next) {
        case ParseOutcome::Next::ExitWithoutLog: return outcome.status;
        case ParseOutcome::Next::ExitAfterSavingLog: saveLog(outcome.status); return outcome.status;
        case ParseOutcome::Next::Run: break;
    }
    int status = runRequest(request);
    saveLog(status);
    return status;
}

}  // namespace whittle
