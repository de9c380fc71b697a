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

}  // namespace

void Logging::sInit(const char* programName, bool toStderr) {
    static SyslogSink sink;
    static bool initialised = false;
    if (initialised) {
        return;
    }
    initialised = true;
    // Every line's time stamp converts the time: without this, each one
    // would also look at the zone file again.
    Environment::sPinTimeZone();
    google::InitGoogleLogging(programName);
    FLAGS_logtostderr = toStderr;
    openlog(programName, LOG_PID, LOG_USER);
    google::AddLogSink(&sink);
}

}  // namespace datacenter
