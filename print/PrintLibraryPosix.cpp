#include <dlfcn.h>

#include <mutex>
#include <string>

#include "print/PrintLibrary.h"
#include "support/Utf8.h"

namespace velmar::print {
namespace {

// The library beside the program, loaded once and kept for the life of the process; the factory is empty
// and error says why when it cannot be loaded.
const PrintDialogFactory& LibraryFactory(std::wstring& error) {
    static std::once_flag once;
    static PrintDialogFactory factory;
    static std::wstring loadError;
    std::call_once(once, [] {
        char self[4096];
        const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
        std::string path = length > 0 ? std::string(self, static_cast<size_t>(length)) : std::string();
        const size_t slash = path.rfind('/');
        path = (slash == std::string::npos ? std::string() : path.substr(0, slash + 1)) + kPrintLibraryName;
        void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        const auto fill =
            library
                ? reinterpret_cast<PFN_VelmarPrintDialogFactory>(dlsym(library, kPrintDialogFactoryExport))
                : nullptr;
        if (fill) fill(&factory);
        if (!factory) {
            const char* reason = dlerror();
            loadError = L"Druckbibliothek " + Utf8ToWide(path) + L" nicht geladen" +
                        (reason ? L": " + Utf8ToWide(reason) : std::wstring());
        }
    });
    error = loadError;
    return factory;
}

}  // namespace

PrintDialogFactory LoadPrintDialogs(std::function<std::uintptr_t()>) {
    return [](std::function<void(const std::wstring&)> trace,
              std::function<void()> done) -> std::unique_ptr<IPrintDialog> {
        std::wstring error;
        const PrintDialogFactory& factory = LibraryFactory(error);
        if (!factory) {
            trace(error);
            return nullptr;
        }
        return factory(std::move(trace), std::move(done));
    };
}

}  // namespace velmar::print
