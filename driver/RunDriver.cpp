#include "driver/RunDriver.hpp"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <vector>

#include "support/FileSystem.hpp"
#include "support/Helpers.hpp"
#include "support/LogObject.hpp"
#include "support/PlistCodec.hpp"
#include "support/ProcessInfo.hpp"

namespace whittle {

namespace {

constexpr const char* kPassedColours = "\x1b[37m\x1b[42m";
constexpr const char* kFailedColours = "\x1b[37m\x1b[41m";

void writeOut(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }

std::unique_ptr<Stripper> createEngine(const RunRequest& request) {
    return stripperClass().stripperForPath(*request.source, request.products, request.factoryVariants,
                                           request.stripOptions);
}

// A timestamped diagnostic line on standard error, outside the shared logger.
void diagnostic(const std::string& message) {
    timeval now{};
    ::gettimeofday(&now, nullptr);
    std::tm local{};
    ::localtime_r(&now.tv_sec, &local);
    char stamp[64];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    std::fprintf(stderr, "%s.%03d whittle[%d] %s\n", stamp, static_cast<int>(now.tv_usec / 1000),
                 static_cast<int>(::getpid()), message.c_str());
    std::fflush(stderr);
}

// The diagnostic pass of "--doTest": an engine of its own, whose results are reported
// and then dropped.
void runTestPass(const RunRequest& request) {
    auto engine = createEngine(request);
    if (!engine) return;
    diagnostic(format("test: validProducts %@", niceDescription(engine->validProducts())));
    diagnostic(format("test: validVariants %@", niceDescription(engine->validFactoryVariants())));
    int result = engine->strip();
    diagnostic(format("test: strip returned %d", result));
    diagnostic(format("test: modifiedFiles: %@", engine->modifiedFiles()));
    diagnostic(format("test: strippedManifest: %@", engine->strippedManifest()));
}

void printPropertyList(const Value& value) {
    writeOut(xmlPropertyList(value) + "\n");
    std::fflush(stdout);
}

Value arrayOrEmpty(const Value& value) { return value.isArray() ? value : Value::array(); }

int reportValidProducts(Stripper& engine) {
    Value products = engine.validProducts();
    if (products.count() == 0) {
        Log("XXX ERROR: cannot get valid products.");
        return 2;
    }
    Value report = Value::dictionary();
    report.set("validProducts", products);
    printPropertyList(report);
    return 0;
}

int reportValidVariants(RunRequest& request, std::unique_ptr<Stripper>& engine) {
    Value products = engine->validProducts();
    if (products.count() == 0) {
        Log("XXX ERROR: cannot get valid products.");
        return 2;
    }
    Value requested = request.products.at(0);
    bool requestedIsValid = !requested.isNone() && std::any_of(products.asArray()->begin(), products.asArray()->end(),
                                                               [&](const Value& p) { return p.equals(requested); });
    if (!requestedIsValid) {
        request.products = Value::array({products.at(0)});
        Log(">>> NOTE changing products to %@", request.products);
        engine = createEngine(request);
        if (!engine) {
            Log("XXX ERROR: cannot create stripper.");
            return 22;
        }
    }
    Value report = Value::dictionary();
    report.set("validProducts", arrayOrEmpty(engine->validProducts()));
    report.set("validVariants", arrayOrEmpty(engine->validFactoryVariants()));
    printPropertyList(report);
    return 0;
}

void printDryRunListing(Stripper& engine) {
    std::string listing = "Files to be copied:\n";
    Value paths = engine.strippedManifest();
    for (const auto& path : paths.elements()) listing += format("\t%s\n", path);
    listing += "\nFiles to be created:\n";
    Value modified = engine.modifiedFiles();
    if (const auto* entries = modified.asDictionary()) {
        for (const auto& [path, content] : *entries) {  // ascending plain string order
            if (content.isString()) {
                listing += format("\t%s\t\t=\n\"%s\"\n", path, content);
            } else if (const auto* link = content.asData()) {
                listing += format("\t%s\t\t->\t%s\n", path, link->bytes);
            } else if (content.isDictionary()) {
                listing += format("\t%s\t\t=\n%s\n", path, content.description());
            }
        }
    }
    writeOut(listing);
    std::fflush(stdout);
}

void reportVerdict(int status) {
    bool onTerminal = ::isatty(STDERR_FILENO) == 1;
    if (onTerminal) {
        writeOut(status == 0 ? kPassedColours : kFailedColours);
        std::fflush(stdout);
    }
    MustLog(status == 0 ? "Validation PASSED." : "Validation FAILED.");
    if (onTerminal) {
        writeOut(std::string(kColourReset) + kColourReset);
        std::fflush(stdout);
        std::fflush(stderr);
    }
}

int stripAndReport(const RunRequest& request, Stripper& engine) {
    if (verboseMode == 1) engine.setVerbose(true);
    Log(">>> analyzing bundle.");
    int status = engine.strip();
    if (request.dryRun) printDryRunListing(engine);
    if (!request.target || request.dryRun) {
        reportVerdict(status);
        return status;
    }
    if (status != 0) return status;
    Log("XXX ERROR: writing stripped bundles is not part of this build yet.");
    return 1;
}

// The run's engine stays reachable until the process ends and is never torn down:
// freeing a manifest of many megabytes node by node would cost a good part of a run
// that is about to end anyway.
void keepUntilExit(std::unique_ptr<Stripper> engine) {
    static std::vector<Stripper*> kept;
    kept.push_back(engine.release());
}

int runWithEngine(RunRequest& request, std::unique_ptr<Stripper>& engine) {
    if (request.validProductsMode) return reportValidProducts(*engine);
    if (request.validVariantsMode) return reportValidVariants(request, engine);
    return stripAndReport(request, *engine);
}

}  // namespace

int runRequest(RunRequest& request) {
    if (request.doTest) runTestPass(request);
    auto engine = createEngine(request);
    if (!engine) {
        Log("XXX ERROR: cannot create stripper.");
        return 22;
    }
    int status = runWithEngine(request, engine);
    keepUntilExit(std::move(engine));
    return status;
}

void saveLog(int status) {
    std::string error;
    writeFileAtomically(kLogFilePath, LogObject::sharedLogger().historicalLog(), error);
    if (status != 0) Log("XXX ERROR: log file in %s", kLogFilePath);
}

int whittleMain(const std::vector<std::string>& arguments) {
    setProcessArguments(arguments);
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
