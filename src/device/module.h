// The device module: command slots of Target.*, Exec.* and the probe side of
// the project's connection settings, the device event delivery, the target
// reader of the debug layer, and the wait that batch mode runs after a line.
#pragma once

class IDeviceProjectSettings;

namespace DeviceModule {
// Call once after the application object exists (and after the project
// module, whose settings it receives).
void Install();
// Waits until no device job is pending and every report is delivered; bounded
// by TimeoutMS. 0, or -1 on time-out or without a device.
int WaitUntilIdle(int TimeoutMS = 130000);
// The receiver of the project's connection settings.
IDeviceProjectSettings& ProjectSettings();
}  // namespace DeviceModule
