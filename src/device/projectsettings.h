// The probe connection settings that a project holds. The project layer
// reports each change through this interface; the start-up hands the device
// module's receiver (DeviceModule::ProjectSettings) to the project.
#pragma once
#include "common/types.h"

#include <QString>

class IDeviceProjectSettings {
 public:
  virtual ~IDeviceProjectSettings() = default;
  virtual void SetDevice(const QString& sDevice) = 0;
  // "USB" or "IP"; sIdent is a serial number or "host:port".
  virtual void SetHostIF(const QString& sHostIF, const QString& sIdent) = 0;
  // "JTAG", "SWD", "FINE" or "cJTAG".
  virtual void SetTargetIF(const QString& sTargetIF) = 0;
  // Hz; 0 auto, 65535 adaptive.
  virtual void SetSpeed(I64 Hz) = 0;
  virtual void SetJTAGConfig(int DRPre, int IRPre) = 0;
  virtual void SetScriptFile(const QString& sPath) = 0;
  virtual void SetLogFile(const QString& sPath) = 0;
};

