// The device configuration block (DEV_CONFIG_PARAMS), its XML text form, the
// interface speed texts and the probe library version text. Plain data: the
// side effects of a change live in CDevice::SetConfigParam.
#pragma once
#include "common/types.h"

#include <QString>
#include <QStringList>
#include <atomic>
#include <mutex>
#include <vector>

enum DEV_CONFIG_PARAMS : int {
  DEV_CFG_DEVICE_INDEX = 0, DEV_CFG_CORE_INDEX = 1, DEV_CFG_USB_SERIAL_NO = 2, DEV_CFG_USE_SERIAL_NO = 3,
  DEV_CFG_HOST_IF = 4, DEV_CFG_TARGET_IF = 5, DEV_CFG_SPEED = 6, DEV_CFG_USE_MAX_SPEED = 7,
  DEV_CFG_USE_ADAPTIVE = 8, DEV_CFG_ENDIAN = 9, DEV_CFG_DR_PRE = 10, DEV_CFG_IR_PRE = 11,
  DEV_CFG_MULTIPLE_TARGETS = 12, DEV_CFG_RESERVED = 13, DEV_CFG_BREAK_AT_SYMBOL_ADDR = 14,
  DEV_CFG_LVT_CB_ADDR = 15, DEV_CFG_LVT_NUM_RANGES = 16,
  DEV_CFG_HOST_NAME = 18, DEV_CFG_DEVICE_NAME = 19, DEV_CFG_SCRIPT_FILE = 20, DEV_CFG_LOG_FILE = 21,
};
constexpr int DEV_CFG_NUM_INT = 17;
constexpr int DEV_HOST_IF_USB = 1, DEV_HOST_IF_IP = 2;
constexpr U32 DEV_SPEED_AUTO = 0, DEV_SPEED_ADAPTIVE = 65535;

// What the device list and the probe told about the selected device.
struct DEVICE_INFO_FIELDS {
  QString sDeviceName;
  QString sCoreName;
  U32 CoreId = 0;
  U32 CoreFamily = 0;
  U32 RAMAddr = 0;
  U32 RAMSize = 0;
  int LibVersion = 0;
  int SerialNo = 0;
  int NumDevices = 0;
  QString sFirmware;
  QString sWebServerURL;
  std::vector<QString> MemZones;
  int TIFSpeedHz = 0;
  int DataEndian = 0, InstEndian = 0;
  U8 aCaps[6] = {1, 1, 1, 1, 1, 1};  // BMA, SWO, streaming, trace pins, buffer, SWO trace
};

// Values read from an XML text: absent numbers give 0 (ConnectMode and
// TargetIF 1); Speed in Hz (auto 0, adaptive 65535).
struct DEV_CONFIG_XML {
  U32 ConnectMode = 1, USBSerialNo = 0, UseSerialNo = 0;
  U32 CoreIndex = 0, Endian = 0;
  U32 TargetIF = 1, DRPre = 0, IRPre = 0, MultipleTargets = 0, Speed = 0, UseAdaptive = 0, UseMaxSpeed = 0;
  QString sHostName, sDeviceName;
  QStringList Errors;  // "Invalid configuration parameter ..." texts
};

class CDeviceConfig {
 public:
  CDeviceConfig() { Reset(); }
  void Reset();
  int Get(int Id) const { return Id >= 0 && Id < DEV_CFG_NUM_INT ? m_aInt[Id].load() : 0; }
  void Store(int Id, int Value) {
    if (Id >= 0 && Id < DEV_CFG_NUM_INT) m_aInt[Id].store(Value);
  }
  QString GetString(int Id) const;
  // Cut to the field (255 or 2047 characters). False for a non-string id.
  bool StoreString(int Id, const QString& s);
  QString Xml() const;
  void RewriteXml();

  static QString BuildXml(const CDeviceConfig& c);
  // False only when the text is not XML at all (then Errors holds why).
  static bool ParseXml(const QString& sXml, DEV_CONFIG_XML* pOut);

 private:
  std::atomic<int> m_aInt[DEV_CFG_NUM_INT];
  mutable std::mutex m_Mx;
  QString m_sHostName, m_sDeviceName, m_sScriptFile, m_sLogFile, m_sXml;
};

// "auto", "adaptive", "4 MHz", "12 kHz", "1500 Hz" (WithUnit) or plain decimal;
// empty for a negative value.
QString DEV_SpeedToText(I64 Hz, bool WithUnit);
// "auto" 0, "adaptive" 65535, "4 MHz", "2,5 kHz", "100"; -1 when unreadable.
I64 DEV_SpeedFromText(const QString& sText);
// A speed set from a project: whole kHz (501 and above rounds up), at least 1 kHz.
I64 DEV_RoundProjectSpeed(I64 Hz);
// "7.00", "6.20f" from 70000, 62006.
QString DEV_LibVersionText(int Version);
// Web server port of the probe software for a version and the optional
// function's answer (-1 when there is no function); 0 means no URL.
int DEV_WebServerPort(int Version, int FuncPort);
