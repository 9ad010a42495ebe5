// The central view of the main window until the full source viewer exists:
// the source file that holds the PC, with the PC's line marked and in view,
// brought up to date at every halt, step and reset.
#pragma once
#include "common/types.h"
#include "device/listener.h"

#include <QPlainTextEdit>

class QLabel;

class CPcLineView : public QWidget, public CDeviceEventListener {
 public:
  explicit CPcLineView(QWidget* pParent = nullptr);
  // Shows the line of PC; a PC without a source line shows why.
  void ShowPC(U32 PC);
  // The file and line shown last ("" and 0 for none).
  QString CurrentFile() const { return m_sFile; }
  int CurrentLine() const { return m_Line; }

  void OnDeviceHaltDone(U32 NewPC, HALT_REASONS) override { ShowPC(NewPC); }
  void OnDeviceStepped(U32 NewPC) override { ShowPC(NewPC); }
  void OnDeviceResetDone(U32 NewPC, RESET_MODES) override { ShowPC(NewPC); }
  void OnDeviceDisconnectDone() override { m_HasPC = false, ClearMark(); }
  void OnDeviceResumeDone(RESUME_MODES) override { m_HasPC = false, ClearMark(); }

 private:
  void ClearMark();
  QLabel* m_pHeader;
  QPlainTextEdit* m_pText;
  QString m_sFile;
  int m_Line = 0;
  bool m_HasPC = false;  // ShowPC ran; the last PC is shown again when the path rules change
  U32 m_LastPC = 0;
};
