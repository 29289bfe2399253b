// What a printed page may reach. A document printed for another program is not to be trusted: it may name
// the user's files (an iframe of "../.ssh/id_rsa", an object of a file: URL) to have them printed, or a host
// to send them to. The web engine is told to run no script and to reach no remote URL, and every request
// it makes (subresources, frames, navigations) is checked where it is made, by the profile's request
// interceptor: the page reads files of its own folder and below (a link there that leads elsewhere counts
// where it leads), the style sheet its job names, data: URLs and nothing else.
#pragma once

#include <QString>
#include <QUrl>
#include <QWebEnginePage>
#include <QWebEngineUrlRequestInterceptor>
#include <mutex>

namespace velmar::print {

// The reach of the job being printed; set before its page loads, read on the engine's threads.
class CPrintPageScope {
public:
    // folder: the html file's folder; styleSheet: the job's style sheet URL, empty when it names none.
    void Set(const QString& folder, const QUrl& styleSheet);
    bool Allows(const QUrl& url) const;

private:
    mutable std::mutex m_lock;
    QString m_folder;  // canonical, ending in "/"; empty: no file is within reach
    QUrl m_styleSheet;
};

class CPrintRequestInterceptor final : public QWebEngineUrlRequestInterceptor {
public:
    explicit CPrintRequestInterceptor(const CPrintPageScope& scope, QObject* parent)
        : QWebEngineUrlRequestInterceptor(parent), m_scope(scope) {}
    void interceptRequest(QWebEngineUrlRequestInfo& info) override;

private:
    const CPrintPageScope& m_scope;
};

// The page a job is printed from: settings that keep scripts, plugins and remote content out, and no
// navigation of the page itself but those the dialog starts (a refresh, a form or a link of the page goes
// nowhere); its frames go only where the scope allows.
class CPrintPage final : public QWebEnginePage {
public:
    CPrintPage(QWebEngineProfile* profile, const CPrintPageScope& scope, QObject* parent);

protected:
    bool acceptNavigationRequest(const QUrl& url, NavigationType type, bool isMainFrame) override;

private:
    const CPrintPageScope& m_scope;
};

}  // namespace velmar::print
