#include "app/qt/GermanQtTexts.h"

#include <QCoreApplication>
#include <QLibraryInfo>

std::unique_ptr<QTranslator> InstallGermanQtTexts() {
    auto translator = std::make_unique<QTranslator>();
    if (!translator->load(QStringLiteral("qtbase_de"), QLibraryInfo::path(QLibraryInfo::TranslationsPath)))
        return nullptr;
    QCoreApplication::installTranslator(translator.get());
    return translator;
}
