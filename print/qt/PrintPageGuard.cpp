#include "print/qt/PrintPageGuard.h"

#include <QFileInfo>
#include <QWebEngineSettings>

namespace velmar::print {

void CPrintPageScope::Set(const QString& folder, const QUrl& styleSheet) {
    const QString canonical = QFileInfo(folder).canonicalFilePath();
    std::lock_guard lock(m_lock);
    m_folder = canonical.isEmpty() ? QString() : canonical + u'/';
    m_styleSheet = styleSheet;
}

bool CPrintPageScope::Allows(const QUrl& url) const {
    const QString scheme = url.scheme().toLower();
    // Text the page holds itself, and the blank page a job starts from.
    if (scheme == u"data" || url == QUrl(QStringLiteral("about:blank"))) return true;
    std::lock_guard lock(m_lock);
    if (!m_styleSheet.isEmpty() && url == m_styleSheet) return true;
    if (scheme != u"file" || m_folder.isEmpty()) return false;
    // Where the file really is: a link in the folder that leads out of it is out of it.
    const QString path = QFileInfo(url.toLocalFile()).canonicalFilePath();
    return !path.isEmpty() && path.startsWith(m_folder);
}

void CPrintRequestInterceptor::interceptRequest(QWebEngineUrlRequestInfo& info) {
    if (!m_scope.Allows(info.requestUrl())) info.block(true);
}

CPrintPage::CPrintPage(QWebEngineProfile* profile, const CPrintPageScope& scope, QObject* parent)
    : QWebEnginePage(profile, parent), m_scope(scope) {
    QWebEngineSettings* options = settings();
    options->setAttribute(QWebEngineSettings::JavascriptEnabled, false);
    options->setAttribute(QWebEngineSettings::LocalContentCanAccessRemoteUrls, false);
    // The page's own pictures and style sheets are files: the scope says which files.
    options->setAttribute(QWebEngineSettings::LocalContentCanAccessFileUrls, true);
    options->setAttribute(QWebEngineSettings::PluginsEnabled, false);
    options->setAttribute(QWebEngineSettings::LocalStorageEnabled, false);
    options->setAttribute(QWebEngineSettings::AutoLoadIconsForPage, false);
    options->setAttribute(QWebEngineSettings::DnsPrefetchEnabled, false);
    // A frame that is refused stays empty instead of printing the engine's error text.
    options->setAttribute(QWebEngineSettings::ErrorPageEnabled, false);
    options->setAttribute(QWebEngineSettings::NavigateOnDropEnabled, false);
    options->setDefaultTextEncoding(QStringLiteral("UTF-8"));
}

bool CPrintPage::acceptNavigationRequest(const QUrl& url, NavigationType type, bool isMainFrame) {
    if (isMainFrame) return type == NavigationTypeTyped;  // what the dialog loads itself
    return m_scope.Allows(url);
}

}  // namespace velmar::print
