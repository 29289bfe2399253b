#include "app/qt/MainWindowQt.h"

#include <QApplication>
#include <QClipboard>
#include <QCloseEvent>
#include <QHeaderView>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QSystemTrayIcon>
#include <QTimer>
#include <QTreeView>

#include "app/WindowTexts.h"
#include "app/qt/ActivityModel.h"

namespace {

// The notes between the service threads and the window: catch up with the activity list, run a job, open
// the forms asked for.
const QEvent::Type kActivityNote = static_cast<QEvent::Type>(QEvent::User + 101);
const QEvent::Type kCommandJobNote = static_cast<QEvent::Type>(QEvent::User + 1002);
const QEvent::Type kFormTaskNote = static_cast<QEvent::Type>(QEvent::User + 103);
const QEvent::Type kPrintDoneNote = static_cast<QEvent::Type>(QEvent::User + 104);

class CCommandJobEvent : public QEvent {
public:
    CCommandJobEvent(QEvent::Type type, size_t index, int action)
        : QEvent(type), index(index), action(action) {}
    size_t index;
    int action;
};

// Lines added per round of the event loop: a burst goes in as a few batches, with events between them.
constexpr size_t kBatchLines = 2000;

// The dialog template is laid out in dialog units of "MS Shell Dlg" 8 point: 6 x 13 pixels per 4 x 8 units.
QRect DialogUnits(int x, int y, int width, int height) {
    return QRect(x * 6 / 4, y * 13 / 8, width * 6 / 4, height * 13 / 8);
}

QString Text(const wchar_t* text) {
    return QString::fromWCharArray(text);
}

}  // namespace

CVelmarTaskSchedulerDlg::CVelmarTaskSchedulerDlg(CActivityList& activity, std::function<bool()> startService)
    : m_activity(activity),
      m_startService(std::move(startService)),
      m_list(new QTreeView(this)),
      m_minimize(new QPushButton(Text(kMinimizeButton), this)),
      m_clearList(new QPushButton(Text(kClearListButton), this)),
      m_copyList(new QPushButton(Text(kCopyListButton), this)),
      m_tray(new QSystemTrayIcon(this)),
      m_trayMenu(new QMenu(this)),
      m_feed(activity, kBatchLines, [this] { QCoreApplication::postEvent(this, new QEvent(kActivityNote)); }),
      m_model(new CActivityModel(m_feed, this)) {
    setWindowTitle(Text(kWindowCaption));
    resize(DialogUnits(0, 0, 320, 200).size());
    m_minimize->setGeometry(DialogUnits(263, 179, 50, 14));
    m_list->setGeometry(DialogUnits(7, 7, 306, 167));
    m_clearList->setGeometry(DialogUnits(7, 179, 50, 14));
    m_copyList->setGeometry(DialogUnits(135, 179, 50, 14));
    for (QPushButton* button : {m_minimize, m_clearList, m_copyList}) button->setDefault(true);

    m_list->setModel(m_model);
    m_list->setRootIsDecorated(false);
    m_list->setItemsExpandable(false);
    m_list->setUniformRowHeights(true);  // what keeps 100,000 rows cheap: no row is measured
    m_list->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_list->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_list->setContextMenuPolicy(Qt::ActionsContextMenu);
    m_list->header()->setStretchLastSection(false);
    QAction* about = new QAction(Text(kTextAboutItem), this);
    m_list->addAction(about);
    connect(about, &QAction::triggered, this, &CVelmarTaskSchedulerDlg::ShowAboutBox);
    connect(m_list, &QTreeView::doubleClicked, this, [this](const QModelIndex& index) {
        m_jobs.Run(static_cast<size_t>(index.row()), 0, m_activity, m_printer);
    });

    connect(m_minimize, &QPushButton::clicked, this, &CVelmarTaskSchedulerDlg::OnMinimize);
    connect(m_clearList, &QPushButton::clicked, this, &CVelmarTaskSchedulerDlg::OnClearList);
    connect(m_copyList, &QPushButton::clicked, this, &CVelmarTaskSchedulerDlg::OnCopyList);

    m_trayMenu->addAction(about);
    m_tray->setContextMenu(m_trayMenu);
    m_tray->setToolTip(Text(kTrayTip));
    connect(m_tray, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        // The right button opens the icon's menu; any other click brings the window back.
        if (reason != QSystemTrayIcon::Context) RestoreFromTray();
    });
}

CVelmarTaskSchedulerDlg::~CVelmarTaskSchedulerDlg() = default;

void CVelmarTaskSchedulerDlg::OnInitDialog() {
    const QIcon icon(QStringLiteral(":/VelmarTaskScheduler.ico"));
    setWindowIcon(icon);
    m_tray->setIcon(icon);
    m_list->header()->resizeSection(0, kActivityColumnWidth);
    CatchUpActivity();
    m_startService();
    // To the tray as soon as the event loop runs.
    QTimer::singleShot(0, this, &CVelmarTaskSchedulerDlg::OnMinimize);
}

void CVelmarTaskSchedulerDlg::PostClose() {
    QMetaObject::invokeMethod(
        this, [this] { close(); }, Qt::QueuedConnection);
}

void CVelmarTaskSchedulerDlg::PostCommandJob(size_t index, int action) {
    QCoreApplication::postEvent(this, new CCommandJobEvent(kCommandJobNote, index, action));
}

void CVelmarTaskSchedulerDlg::PostPrintJobDone(size_t index) {
    QCoreApplication::postEvent(this, new CCommandJobEvent(kPrintDoneNote, index, 2));
}

bool CVelmarTaskSchedulerDlg::AcceptPrintJob(std::vector<std::wstring> job) {
    const std::optional<size_t> index = m_jobs.Add(std::move(job));
    if (!index) return false;
    PostCommandJob(*index, 1);
    return true;
}

void CVelmarTaskSchedulerDlg::PostFormTasks() {
    QCoreApplication::postEvent(this, new QEvent(kFormTaskNote));
}

void CVelmarTaskSchedulerDlg::ShowMessage(const std::wstring& text) {
    QMessageBox::warning(isVisible() ? this : nullptr, Text(kWindowCaption), Text(text.c_str()));
}

bool CVelmarTaskSchedulerDlg::event(QEvent* event) {
    if (event->type() == kFormTaskNote) {
        if (const std::shared_ptr<CWindowFormHost> host = m_formHost.lock()) host->RunPendingTasks();
        return true;
    }
    if (event->type() == kActivityNote) {
        CatchUpActivity();
        return true;
    }
    if (event->type() == kCommandJobNote || event->type() == kPrintDoneNote) {
        const auto* job = static_cast<CCommandJobEvent*>(event);
        m_jobs.Run(job->index, job->action, m_activity, m_printer);
        if (event->type() == kPrintDoneNote) m_jobs.Remove(job->index);
        return true;
    }
    return QWidget::event(event);
}

// One batch now; the rest after the events that have queued up meanwhile, so a flood of lines never
// freezes the window.
void CVelmarTaskSchedulerDlg::CatchUpActivity() {
    if (m_model->CatchUp())
        QCoreApplication::postEvent(this, new QEvent(kActivityNote), Qt::LowEventPriority);
}

void CVelmarTaskSchedulerDlg::OnMinimize() {
    if (!QSystemTrayIcon::isSystemTrayAvailable()) {
        // No tray to live in: the task bar then.
        showMinimized();
        return;
    }
    m_tray->show();
    if (!m_tray->isVisible()) {
        QMessageBox::warning(this, Text(kWindowCaption), Text(kTraySetFailed));
        return;
    }
    showMinimized();
    hide();
}

void CVelmarTaskSchedulerDlg::RestoreFromTray() {
    m_tray->hide();
    if (m_tray->isVisible()) {
        QMessageBox::warning(this, Text(kWindowCaption), Text(kTrayRestoreFailed));
        return;
    }
    showNormal();
    raise();
    activateWindow();
}

void CVelmarTaskSchedulerDlg::OnClearList() {
    m_activity.Clear();
}

// The list as shown, each line followed by CR LF, as UTF-8 text (the POSIX code page).
void CVelmarTaskSchedulerDlg::OnCopyList() {
    while (m_model->CatchUp()) {
    }
    QGuiApplication::clipboard()->setText(QString::fromStdWString(m_activity.Text()));
}

void CVelmarTaskSchedulerDlg::ShowAboutBox() {
    QMessageBox about(QMessageBox::NoIcon, Text(kAboutCaption), Text(kAboutText), QMessageBox::Ok, this);
    about.setIconPixmap(windowIcon().pixmap(32, 32));
    about.exec();
}

void CVelmarTaskSchedulerDlg::closeEvent(QCloseEvent* event) {
    // "Yes" is the default button, as the first button of a Windows message box is.
    if (m_jobs.HasOpenMail() &&
        QMessageBox::question(this, Text(kWindowCaption), Text(kTextCloseQuestion),
                              QMessageBox::Yes | QMessageBox::No, QMessageBox::Yes) != QMessageBox::Yes) {
        event->ignore();
        return;
    }
    event->accept();
    m_tray->hide();
    QCoreApplication::quit();
}

void CVelmarTaskSchedulerDlg::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    if (isVisible() && !isMinimized()) LayOutControls();
}

// The window's rectangle, frame included, with 20-pixel margins: "&Minimize" bottom right, "C&lear List"
// bottom left, "&Copy List" centred, the list above them.
void CVelmarTaskSchedulerDlg::LayOutControls() {
    constexpr int kMargin = 20;
    const QRect window = frameGeometry();
    const QPoint client = mapToGlobal(QPoint(0, 0));
    auto place = [&client](QWidget* control, const QRect& screen) {
        control->setGeometry(screen.translated(-client));
    };
    const QSize minimize = m_minimize->size();
    const QSize clear = m_clearList->size();
    const QSize copy = m_copyList->size();
    const int bottom = window.y() + window.height() - kMargin;
    const int right = window.x() + window.width() - kMargin;
    place(m_minimize,
          QRect(right - minimize.width(), bottom - minimize.height(), minimize.width(), minimize.height()));
    place(m_clearList, QRect(window.x() + kMargin, bottom - clear.height(), clear.width(), clear.height()));
    place(m_copyList, QRect(window.x() + (window.width() - copy.width()) / 2, bottom - copy.height(),
                            copy.width(), copy.height()));
    const int listTop = window.y() + 40;
    const int listBottom = window.y() + window.height() - 30 - copy.height();
    place(m_list, QRect(window.x() + kMargin, listTop, right - window.x() - kMargin, listBottom - listTop));
}
