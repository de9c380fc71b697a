#pragma once
// The stop cases, run by the e2e suite in the simulator's logging mode and by
// the sandbox suite (as root) in sandbox mode: a plugin's daemon that ignores
// SIGTERM survives neither disable nor uninstall; neither the old version's
// daemon nor any other writer of "etc/manifest" changes what an upgrade
// records or mounts; a stop that cannot finish reports failure.
namespace testsupport {

void runPluginStopCases();

}  // namespace testsupport
