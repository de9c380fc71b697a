#pragma once
// The operator's command line over the plugin manager:
//   plugincenter list [--json] | info ID [--json] | install FILE [-k]
//              | install-url URL | install-server ID URL | uninstall ID
//              | clean ID | enable ID | disable ID | control ID REQUEST
//              | config get ID KEY | config set ID KEY VALUE
//              | metrics ID [--json] | progress "ID;ID..." [--json]
//              | capabilities [--all]
// install-url and install-server show the installation while it runs and
// end with a line that gives the result code.
// "plugincenter VERB --help" prints that verb's usage. Exit status 0 on
// success; 1 with the message and result code on failure; 2 with the usage
// text for bad arguments.
int pluginCenterMain(int argc, char** argv);
