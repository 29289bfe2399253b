#include "print/qt/DlgPrintExplorer.h"

#include <unistd.h>

#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QPageLayout>
#include <QPageSize>
#include <QPointer>
#include <QPrintDialog>
#include <QPrinter>
#include <QPrinterInfo>
#include <QStringDecoder>
#include <QTimer>
#include <QWebEnginePage>
#include <QWebEngineProfile>
#include <QWebEngineScript>

#include "print/PrintingExternal.h"
#include "print/qt/CupsPrinter.h"
#include "support/FileBytes.h"

namespace velmar::print {
namespace {

// A page that does not load in this time is given up.
constexpr int kLoadTimeoutMilliseconds = 60000;
// setHtml carries the page in a data: URL, which Chromium takes up to 2 MB of (base64); a bigger
// document is loaded from its file, with UTF-8 as the encoding of files that declare none.
constexpr qsizetype kLargestWrittenPage = 1500 * 1024;
// Files beyond this are no document to print.
constexpr size_t kLargestHtmlFile = 256 * 1024 * 1024;
// A style sheet that has not loaded after this many polls of 50 ms is printed without.
constexpr int kStyleSheetPolls = 200;

QString Q(const std::wstring& text) {
    return QString::fromStdWString(text);
}

// text as a JavaScript string literal.
QString ScriptString(const QString& text) {
    QString literal = QStringLiteral("\"");
    for (const QChar c : text) {
        if (c == u'"' || c == u'\\') literal += u'\\';
        if (c.unicode() < 0x20 || c == u'<' || c.unicode() == 0x2028 || c.unicode() == 0x2029) {
            literal += QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QChar(u'0'));
            continue;
        }
        literal += c;
    }
    return literal + u'"';
}

std::string PrinterOf(const CPrintJob& job) {
    return job.NamesPrinter() ? QString::fromStdWString(job.printer).toStdString() : std::string();
}

QPageLayout DefaultLayout(const std::string& printer) {
    QPageSize size = QPrinterInfo::printerInfo(QString::fromStdString(printer)).defaultPageSize();
    if (!size.isValid()) size = QPageSize(QPageSize::A4);
    return QPageLayout(size, QPageLayout::Portrait, QMarginsF(10, 10, 10, 10), QPageLayout::Millimeter);
}

}  // namespace

std::wstring WebEngineUnavailableReason() {
    if (geteuid() != 0 || qEnvironmentVariableIsSet("QTWEBENGINE_DISABLE_SANDBOX") ||
        qEnvironmentVariable("QTWEBENGINE_CHROMIUM_FLAGS").contains(QStringLiteral("--no-sandbox")))
        return {};
    return L"Qt WebEngine läuft als root nicht mit seiner Sandbox, und VelmarTaskScheduler schaltet sie "
           L"nicht "
           L"selbst ab (QTWEBENGINE_DISABLE_SANDBOX=1 tut es)";
}

// Where a rendered PDF goes: a CUPS destination, or a file the print dialog chose.
struct CDlgPrintExplorer::CPdfTarget {
    CCupsRequest cups;
    QPageLayout layout;
    QPageRanges ranges;
    QString outputFile;
};

CDlgPrintExplorer::CDlgPrintExplorer(std::function<void(const std::wstring&)> trace,
                                     std::function<void()> done)
    : m_trace(std::move(trace)), m_queue(*this), m_watchdog(new QTimer(this)) {
    setWindowTitle(QStringLiteral("Html Dokument ausdrucken"));
    m_queue.SetCompletion(std::move(done));
    m_watchdog->setSingleShot(true);
    connect(m_watchdog, &QTimer::timeout, this, [this] {
        if (m_loading == ELoad::None) return;
        Trace(L"Html Dokument: die Seite lädt nicht");
        LoadFinished(false);
    });
}

CDlgPrintExplorer::~CDlgPrintExplorer() {
    m_closing = true;
    if (m_submission.joinable()) m_submission.join();
    delete m_printDialog.data();
    delete m_page;
    delete m_profile;
}

void CDlgPrintExplorer::PostStartNext() {
    QMetaObject::invokeMethod(
        this, [this] { m_queue.StartNext(); }, Qt::QueuedConnection);
}

void CDlgPrintExplorer::NavigateBlank() {
    if (!m_page) {
        if (const std::wstring reason = WebEngineUnavailableReason(); !reason.empty()) {
            Trace(reason);
            // No page will come: the job's document cannot be made, and the queue goes on.
            QMetaObject::invokeMethod(
                this, [this] { m_queue.OnNavigateComplete(); }, Qt::QueuedConnection);
            return;
        }
        m_profile = new QWebEngineProfile();  // off the record: nothing of a printed page stays on disk
        m_profile->setUrlRequestInterceptor(new CPrintRequestInterceptor(m_scope, m_profile));
        m_page = new CPrintPage(m_profile, m_scope, nullptr);
        connect(m_page, &QWebEnginePage::loadFinished, this, &CDlgPrintExplorer::LoadFinished);
    }
    m_loading = ELoad::Blank;
    m_watchdog->start(kLoadTimeoutMilliseconds);
    m_page->setUrl(QUrl(QStringLiteral("about:blank")));
}

void CDlgPrintExplorer::WriteDocument(const CPrintJob& job) {
    auto failed = [this] {
        QMetaObject::invokeMethod(
            this, [this] { m_queue.OnDocumentWritten(false); }, Qt::QueuedConnection);
    };
    // A regular file only, opened without waiting: a FIFO named as a job holds up no window.
    const std::optional<std::string> read = ReadFileBytes(job.htmlFile, kLargestHtmlFile);
    if (!m_page || !read) return failed();
    const QByteArray bytes = QByteArray::fromStdString(*read);
    const QFileInfo file(Q(job.htmlFile));
    const QUrl fileUrl = QUrl::fromLocalFile(file.absoluteFilePath());
    m_scope.Set(file.absolutePath(), job.HasTemplate() ? QUrl(Q(job.styleSheet)) : QUrl());
    QStringDecoder decoder = QStringDecoder::decoderForHtml(bytes);
    m_loading = ELoad::Document;
    m_watchdog->start(kLoadTimeoutMilliseconds);
    if (decoder.isValid()) {
        const QString text = decoder.decode(bytes);
        if (text.size() <= kLargestWrittenPage) {
            // The file's folder is the page's base, so its pictures and style sheets are found.
            m_page->setHtml(text, fileUrl);
            return;
        }
    }
    m_page->load(fileUrl);
}

void CDlgPrintExplorer::LoadFinished(bool ok) {
    const ELoad loading = std::exchange(m_loading, ELoad::None);
    m_watchdog->stop();
    if (loading == ELoad::Blank) m_queue.OnNavigateComplete();
    if (loading == ELoad::Document) m_queue.OnDocumentWritten(ok);
}

void CDlgPrintExplorer::PrintWithTemplate(const CPrintJob& job) {
    // What a print template does once it has printed.
    m_printed = [this](bool) { InvokeExternal(PrintingExternalDispId(L"print_complete")); };
    StyleSheetThenPrint(job, 0);
}

void CDlgPrintExplorer::Print(const CPrintJob& job) {
    m_printed = [this](bool printed) { m_queue.OnPrinted(printed); };
    PrintPage(job);
}

void CDlgPrintExplorer::InvokeExternal(long dispid) {
    if (dispid == kPrintCompleteDispId) m_queue.OnPrintComplete();
}

void CDlgPrintExplorer::QueueDone(const std::wstring&) {
    // Jobs name their printer in their CUPS request; the user's default printer is never changed, so there
    // is nothing to put back.
    m_printed = nullptr;
}

// Adds the style sheet to the page and prints once it has loaded (or failed to, or taken too long).
void CDlgPrintExplorer::StyleSheetThenPrint(const CPrintJob& job, int polls) {
    if (m_styleSheet.empty() || polls > kStyleSheetPolls) {
        if (polls > kStyleSheetPolls) Trace(L"Style Sheet lädt nicht: " + m_styleSheet);
        PrintPage(job);
        return;
    }
    const CPrintJob copy = job;
    if (polls == 0) {
        const QString add = QStringLiteral(
                                "(function(){var l=document.createElement('link');l.rel='stylesheet';"
                                "l.href=%1;window.velmarStyle='wait';"
                                "l.onload=function(){window.velmarStyle='ok'};"
                                "l.onerror=function(){window.velmarStyle='error'};"
                                "(document.head||document.documentElement).appendChild(l);})()")
                                .arg(ScriptString(Q(m_styleSheet)));
        m_page->runJavaScript(add, QWebEngineScript::ApplicationWorld);
    }
    m_page->runJavaScript(QStringLiteral("window.velmarStyle"), QWebEngineScript::ApplicationWorld,
                          [this, copy, polls](const QVariant& state) {
                              if (m_closing) return;
                              if (state.toString() == QStringLiteral("error"))
                                  Trace(L"Style Sheet nicht gefunden: " + m_styleSheet);
                              if (state.toString() != QStringLiteral("wait")) {
                                  m_styleSheet.clear();
                                  return StyleSheetThenPrint(copy, 0);
                              }
                              QTimer::singleShot(
                                  50, this, [this, copy, polls] { StyleSheetThenPrint(copy, polls + 1); });
                          });
}

// Prompt "1": the print dialog chooses printer and options first; otherwise the job's printer, or the
// default one for "*", with its default paper.
void CDlgPrintExplorer::PrintPage(const CPrintJob& job) {
    auto target = std::make_shared<CPdfTarget>();
    target->cups.title = QFileInfo(Q(job.htmlFile)).fileName().toStdString();
    const bool noScreen = QGuiApplication::platformName() == QStringLiteral("offscreen");
    if (job.prompt && noScreen) Trace(L"Kein Bildschirm für den Druckdialog: " + job.htmlFile);
    if (!job.prompt || noScreen) {
        target->cups.printer = PrinterOf(job);
        target->layout =
            DefaultLayout(target->cups.printer.empty() ? DefaultCupsPrinter() : target->cups.printer);
        RenderAndSubmit(job, target);
        return;
    }
    m_printer = std::make_unique<QPrinter>(QPrinter::HighResolution);
    if (job.NamesPrinter()) m_printer->setPrinterName(Q(job.printer));
    auto* dialog = new QPrintDialog(m_printer.get());
    m_printDialog = dialog;  // goes by itself once closed
    dialog->setWindowTitle(QStringLiteral("Drucken"));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    const CPrintJob copy = job;
    connect(dialog, &QDialog::finished, this, [this, copy, target](int result) {
        if (result != QDialog::Accepted) return Finish(false, L"Drucken abgebrochen: " + copy.htmlFile);
        target->cups.printer = m_printer->printerName().toStdString();
        target->cups.copies = m_printer->copyCount();
        if (m_printer->duplex() == QPrinter::DuplexLongSide) target->cups.sides = "two-sided-long-edge";
        if (m_printer->duplex() == QPrinter::DuplexShortSide) target->cups.sides = "two-sided-short-edge";
        target->layout = m_printer->pageLayout();
        target->ranges = m_printer->pageRanges();
        if (m_printer->outputFormat() == QPrinter::PdfFormat)
            target->outputFile = m_printer->outputFileName();
        RenderAndSubmit(copy, target);
    });
    dialog->open();
}

void CDlgPrintExplorer::RenderAndSubmit(const CPrintJob& job, std::shared_ptr<CPdfTarget> target) {
    const std::wstring file = job.htmlFile;
    m_page->printToPdf(
        [this, file, target](const QByteArray& pdf) {
            if (m_closing) return;
            if (pdf.isEmpty()) return Finish(false, L"Html Dokument ergibt kein PDF: " + file);
            if (!target->outputFile.isEmpty()) {
                QFile out(target->outputFile);
                const bool written =
                    out.open(QIODevice::WriteOnly) && out.write(pdf) == pdf.size() && out.flush();
                return Finish(written, (written ? L"Html Dokument gedruckt in "
                                                : L"Html Dokument nicht geschrieben: ") +
                                           target->outputFile.toStdWString());
            }
            if (m_submission.joinable()) m_submission.join();
            // CUPS may be slow or away: the window's thread does not wait for it.
            m_submission = std::thread([this, file, target, pdf] {
                std::string printer;
                std::wstring error;
                const bool ok = SubmitPdfToCups(target->cups, std::string_view(pdf.constData(), pdf.size()),
                                                printer, error);
                const std::wstring line = ok ? L"Html Dokument gedruckt: " + file + L" auf " +
                                                   QString::fromStdString(printer).toStdWString()
                                             : L"Html Dokument nicht gedruckt: " + file + L": " + error;
                QMetaObject::invokeMethod(
                    this, [this, ok, line] { Finish(ok, line); }, Qt::QueuedConnection);
            });
        },
        target->layout, target->ranges);
}

void CDlgPrintExplorer::Finish(bool ok, const std::wstring& line) {
    Trace(line);
    if (std::function<void(bool)> printed = std::exchange(m_printed, nullptr)) printed(ok);
}

PrintDialogFactory PrintDialogFactoryQt() {
    return [](std::function<void(const std::wstring&)> trace, std::function<void()> done) {
        return std::make_unique<CDlgPrintExplorer>(std::move(trace), std::move(done));
    };
}

}  // namespace velmar::print
