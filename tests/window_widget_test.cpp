// The Qt window in-process, on Qt's offscreen platform: the close question only while a mail form is open,
// the about box's texts, the layout after a resize, and lines from many threads while the window runs.
#include <gtest/gtest.h>

#include <QApplication>
#include <QHeaderView>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>
#include <QTreeView>
#include <atomic>
#include <thread>

#include "app/WindowTexts.h"
#include "app/qt/MainWindowQt.h"
#include "tests/QtTestSupport.h"

namespace {

using namespace velmar::test;

class WindowWidgetTest : public ::testing::Test {
protected:
    WindowWidgetTest() : m_window(m_activity, [this] { return ++m_starts, true; }) {}

    QPushButton* Button(const wchar_t* text) {
        for (QPushButton* button : m_window.findChildren<QPushButton*>())
            if (button->text() == QString::fromWCharArray(text)) return button;
        return nullptr;
    }
    QTreeView* List() { return m_window.findChild<QTreeView*>(); }

    CActivityList m_activity;
    int m_starts = 0;
    CVelmarTaskSchedulerDlg m_window;
};

TEST_F(WindowWidgetTest, InitialisationStartsTheServiceAndGoesToTheTaskBarWithoutATray) {
    m_activity.AddLine(L"erste Zeile");
    m_window.OnInitDialog();
    EXPECT_EQ(m_starts, 1);
    EXPECT_EQ(m_window.windowTitle(), "VelmarTaskScheduler");
    ASSERT_NE(List(), nullptr);
    EXPECT_EQ(List()->model()->headerData(0, Qt::Horizontal).toString(), "Aktion");
    EXPECT_EQ(List()->header()->sectionSize(0), 2500);
    for (const wchar_t* text : {kMinimizeButton, kClearListButton, kCopyListButton})
        EXPECT_NE(Button(text), nullptr) << QString::fromWCharArray(text).toStdString();
    // The offscreen platform has no tray: the posted "&Minimize" minimises to the task bar.
    EXPECT_TRUE(ProcessUntil([&] { return m_window.isMinimized(); }));
    EXPECT_EQ(List()->model()->rowCount(), 1);
    EXPECT_EQ(List()->model()->index(0, 0).data().toString(), "erste Zeile");
}

TEST_F(WindowWidgetTest, ClosingAsksOnlyWhileMailOpenedByTheServiceIsOnScreen) {
    m_window.show();
    EXPECT_TRUE(m_window.close()) << "no question without an OPENMAIL job";

    m_window.show();
    const auto mail = m_window.Jobs().Add({L"OPENMAIL"});
    ASSERT_TRUE(mail);
    CBoxAnswer answer;
    AnswerNextBox(answer, QMessageBox::No);
    EXPECT_FALSE(m_window.close()) << "No keeps the window";
    EXPECT_TRUE(answer.seen);
    EXPECT_EQ(answer.text, QString::fromWCharArray(kTextCloseQuestion));
    EXPECT_TRUE(m_window.isVisible());

    // A close posted from another thread (the service's CloseVelmarTaskScheduler) asks the same.
    CBoxAnswer second;
    AnswerNextBox(second, QMessageBox::Yes);
    std::thread([this] { m_window.PostClose(); }).join();
    EXPECT_TRUE(ProcessUntil([&] { return !m_window.isVisible(); }));
    EXPECT_TRUE(second.seen);
}

TEST_F(WindowWidgetTest, AboutBoxAndLayoutAfterAResize) {
    m_window.show();
    CBoxAnswer about;
    AnswerNextBox(about, QMessageBox::Ok);
    m_window.ShowAboutBox();
    EXPECT_EQ(about.title, QString::fromWCharArray(L"Info \u00FCber VelmarTaskScheduler"));
    EXPECT_EQ(about.text,
              "VelmarTaskScheduler, Version 1.0\n\nProgramm zur erledigung von Diensten im Velmar-Umfeld");
    // The list's context menu offers it.
    ASSERT_EQ(List()->actions().size(), 1);
    EXPECT_EQ(List()->actions().front()->text(),
              QString::fromWCharArray(L"&Info \u00FCber VelmarTaskScheduler..."));

    m_window.resize(800, 600);
    ASSERT_TRUE(ProcessUntil([&] { return m_window.width() == 800; }));
    const QRect frame = m_window.frameGeometry();
    const QPoint client = m_window.mapToGlobal(QPoint(0, 0));
    auto onScreen = [&](QWidget* control) { return control->geometry().translated(client); };
    const QRect minimize = onScreen(Button(kMinimizeButton));
    const QRect clear = onScreen(Button(kClearListButton));
    const QRect copy = onScreen(Button(kCopyListButton));
    const QRect list = onScreen(List());
    EXPECT_EQ(minimize.right() + 1, frame.right() + 1 - 20);
    EXPECT_EQ(minimize.bottom() + 1, frame.bottom() + 1 - 20);
    EXPECT_EQ(clear.left(), frame.left() + 20);
    EXPECT_EQ(clear.bottom(), minimize.bottom());
    EXPECT_EQ(copy.left(), frame.left() + (frame.width() - copy.width()) / 2);
    EXPECT_EQ(list.left(), frame.left() + 20);
    EXPECT_EQ(list.right() + 1, frame.right() + 1 - 20);
    EXPECT_EQ(list.top(), frame.top() + 40);
    EXPECT_EQ(list.bottom() + 1, frame.bottom() + 1 - 30 - copy.height());
    EXPECT_EQ(minimize.size(), QSize(75, 22)) << "buttons keep their size";
}

TEST_F(WindowWidgetTest, LinesFromManyThreadsWhileTheWindowRunsAndClearList) {
    m_window.show();
    std::atomic<int> running{8};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 10000; ++i) {
                if (i % 2)
                    m_activity.AddLine(L"Zeile " + std::to_wstring(t) + L"/" + std::to_wstring(i));
                else
                    m_activity.AddTraceLine(L"Spur " + std::to_wstring(t) + L"/" + std::to_wstring(i));
            }
            --running;
        });
    }
    // The window keeps handling events while the lines pour in.
    EXPECT_TRUE(ProcessUntil([&] { return running == 0; }));
    for (auto& thread : threads) thread.join();
    const std::vector<std::wstring> lines = m_activity.Lines();
    // The list is capped: the count reaches its end before the last batches have replaced the oldest rows.
    const auto row = [&](size_t index) {
        return List()->model()->index(static_cast<int>(index), 0).data().toString().toStdWString();
    };
    ASSERT_TRUE(ProcessUntil([&] {
        return List()->model()->rowCount() == static_cast<int>(lines.size()) && row(0) == lines.front() &&
               row(lines.size() - 1) == lines.back();
    }));
    for (size_t index : {size_t{0}, lines.size() / 2, lines.size() - 1}) EXPECT_EQ(row(index), lines[index]);

    Button(kClearListButton)->click();
    EXPECT_TRUE(ProcessUntil([&] { return List()->model()->rowCount() == 0; }));
    m_activity.AddLine(L"danach");
    EXPECT_TRUE(ProcessUntil([&] { return List()->model()->rowCount() == 1; }));
    EXPECT_EQ(List()->model()->index(0, 0).data().toString(), "danach");
}

}  // namespace

int main(int argc, char** argv) {
    return velmar::test::RunOffscreenQtTests(argc, argv);
}
