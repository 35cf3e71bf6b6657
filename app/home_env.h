#ifndef STAVIK_APP_HOME_ENV_H
#define STAVIK_APP_HOME_ENV_H

#include <string>

namespace Stavik {
namespace App {

// The daemon-wide value of HOME for children: empty unless
// InquireHomeEnvVariable found one at start-up. Written once before the first
// record is built; every AppInfo takes a copy.
std::string& DaemonHomeEnv();

// Runs in Init, before the continue point, hence SK_LOG.
// Looks for the first line of the file (resolved under the sandbox root) that
// contains key and takes its home directory field into DaemonHomeEnv().
void InquireHomeEnvVariable(const std::string& path, const std::string& key);

} // namespace App
} // namespace Stavik

#endif
