// The command slots of the project module (files, scripts, settings and the
// Project.* family). The top installs them once at start-up.
#pragma once

namespace ProjectCommands {
void Install();
}  // namespace ProjectCommands
