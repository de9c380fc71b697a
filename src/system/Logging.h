#pragma once
// Start-up of the logging: glog for the program, and every line of it also
// sent to the system log with its source file and line.
namespace datacenter {

class Logging {
public:
    // Initialises glog under `programName`; with `toStderr` glog writes to
    // standard error instead of log files. Safe to call once per process;
    // call it first thing, before any thread starts (it pins TZ, see
    // Environment::sPinTimeZone).
    static void sInit(const char* programName, bool toStderr);
    // The operator tool's form: no log files, standard error gets WARNING
    // and above (INFO too when `verbose`), and every line still goes to the
    // system log.
    static void sInitQuiet(const char* programName, bool verbose);
};

}  // namespace datacenter
