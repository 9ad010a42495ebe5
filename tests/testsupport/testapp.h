// The one application object of a Qt-based test program.
#pragma once
#include <string>

// Creates the test program's application object (QCoreApplication,
// QGuiApplication or QApplication) with a one-word command line, which stays
// valid for the whole program. The caller owns the object; most tests keep it
// until the program ends.
template <class App>
App* NewTestApp(const char* sName = "test") {
  static int argc = 1;
  static std::string name = sName;
  static char* argv[] = {name.data(), nullptr};
  return new App(argc, argv);
}
