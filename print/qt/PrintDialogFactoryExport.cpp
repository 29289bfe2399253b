#include <QCoreApplication>
#include <QOpenGLContext>
#include <QQuickWindow>

#include "print/PrintLibrary.h"
#include "print/qt/DlgPrintExplorer.h"

// Qt's own, exported by Qt GUI without a public declaration: the context every OpenGL context of the
// application shares, which Qt makes at start when asked by Qt::AA_ShareOpenGLContexts.
Q_GUI_EXPORT QOpenGLContext* qt_gl_global_share_context();
Q_GUI_EXPORT void qt_gl_set_global_share_context(QOpenGLContext* context);

extern "C" __attribute__((visibility("default"))) void VelmarPrintDialogFactory(
    velmar::print::PrintDialogFactory* factory) {
    // The web engine comes after the application, which made no shared OpenGL context for it, and it
    // looks at one even when it does not render with OpenGL. Pages are only ever printed, never shown:
    // software rendering does, and the context is never created, so no OpenGL driver is loaded for it.
    QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
    // Nor does the window, so X's OpenGL is not even looked for (Qt does that once, when first asked).
    if (!qEnvironmentVariableIsSet("QT_XCB_GL_INTEGRATION")) qputenv("QT_XCB_GL_INTEGRATION", "none");
    if (!qt_gl_global_share_context())
        qt_gl_set_global_share_context(new QOpenGLContext(QCoreApplication::instance()));
    *factory = velmar::print::PrintDialogFactoryQt();
}
