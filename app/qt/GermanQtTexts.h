// The window, its boxes, the forms and the print dialog speak German: Qt's own texts (buttons of message
// boxes, the print dialog) come from Qt's German translation when it is installed.
#pragma once

#include <QTranslator>
#include <memory>

// Installs the translation into the running application; the caller keeps it while the application runs.
// Null when it is not installed on this system (Qt's English texts then).
std::unique_ptr<QTranslator> InstallGermanQtTexts();
