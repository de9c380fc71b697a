#include "system/Logging.h"

#include <glog/logging.h>
#include <syslog.h>

#include "system/Environment.h"

namespace datacenter {
namespace {

int syslogPriority(google::LogSeverity severity) {
    switch (severity) {
        case google::GLOG_WARNING:
            return LOG_WARNING;
        case google::GLOG_ERROR:
            return LOG_ERR;
        case google::GLOG_FATAL:
            return LOG_CRIT;
        default:
            return LOG_INFO;
    }
}

// Forwards each glog line to syslog, keeping the file and line of its origin.
class SyslogSink : public google::LogSink {
public:
    void send(google::LogSeverity severity, const char* /*fullFilename*/, const char* baseFilename, int line,
              const struct ::tm* /*time*/, const char* message, size_t messageLength) override {
        syslog(syslogPriority(severity), "%s:%d] %.*s", baseFilename, line, static_cast<int>(messageLength), message);
    }
};

void start(const char* programName) {
    static SyslogSink sink;
    // Every line's time stamp converts the time: without this, each one
    // would also look at the zone file again.
    Environment::sPinTimeZone();
    google::InitGoogleLogging(programName);
    openlog(programName, LOG_PID, LOG_USER);
    google::AddLogSink(&sink);
}

bool firstCall() {
    static bool initialised = false;
    const bool first = !initialised;
    initialised = true;
    return first;
}

}  // namespace

void Logging::sInit(const char* programName, bool toStderr) {
    if (!firstCall()) {
        return;
    }
    start(programName);
    FLAGS_logtostderr = toStderr;
}

void Logging::sInitQuiet(const char* programName, bool verbose) {
    if (!firstCall()) {
        return;
    }
    start(programName);
    FLAGS_logtostderr = false;
    FLAGS_stderrthreshold = verbose ? google::GLOG_INFO : google::GLOG_WARNING;
    // An empty destination turns glog's log files off for that severity.
    for (int severity = google::GLOG_INFO; severity < google::NUM_SEVERITIES; ++severity) {
        google::SetLogDestination(severity, "");
    }
}

}  // namespace datacenter
