#pragma once
// The operator's command line over the plugin manager:
//   plugincenter list [--json] | info ID | install FILE [-k] | uninstall ID
//              | clean ID | enable ID | disable ID | control ID REQUEST
//              | config get ID KEY | config set ID KEY VALUE
//              | metrics ID [--json] | progress "ID;ID..." | capabilities [--all]
// "plugincenter VERB --help" prints that verb's usage. Exit status 0 on
// success; 1 with the message and result code on failure; 2 with the usage
// text for bad arguments.
int pluginCenterMain(int argc, char** argv);
