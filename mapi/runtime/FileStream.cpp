// OpenStreamOnFile: IStream over a file. A file the stream creates is never reached through a symbolic
// link in its last path element, so nobody can redirect a write to a file of their choosing. Only regular
// files are streams: whatever else a path names (a FIFO with no writer, a device, a terminal) is opened
// without waiting and refused, so that a caller never hangs on it.
#include <fcntl.h>
#include <unistd.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <string>

#include "mapi/runtime/Guarded.h"
#include "mapi/runtime/Streams.h"
#include "mapiutil.h"
#include "support/Utf8.h"

namespace velmar::mapi {
namespace {

HRESULT ErrnoToStorageError(int error) {
    switch (error) {
        case ENOENT:
            return STG_E_FILENOTFOUND;
        case ENOTDIR:
            return STG_E_PATHNOTFOUND;
        case EACCES:
        case EPERM:
        case ELOOP:
        case EISDIR:
            return STG_E_ACCESSDENIED;
        case EEXIST:
            return STG_E_FILEALREADYEXISTS;
        case ENOSPC:
        case EDQUOT:
            return STG_E_MEDIUMFULL;
        default:
            return E_FAIL;
    }
}

class CFileStream : public CComObject<IStream> {
public:
    CFileStream(int fd, DWORD mode) : m_fd(fd), m_mode(mode) {}
    ~CFileStream() override { close(m_fd); }

    HRESULT Read(void* pv, ULONG cb, ULONG* pcbRead) override {
        if (pcbRead) *pcbRead = 0;
        if (!pv && cb) return STG_E_INVALIDPOINTER;
        ULONG done = 0;
        while (done < cb) {
            const ssize_t got = read(m_fd, static_cast<char*>(pv) + done, cb - done);
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) return STG_E_READFAULT;
            if (got == 0) break;
            done += static_cast<ULONG>(got);
        }
        if (pcbRead) *pcbRead = done;
        return S_OK;
    }
    HRESULT Write(const void* pv, ULONG cb, ULONG* pcbWritten) override {
        if (pcbWritten) *pcbWritten = 0;
        if ((m_mode & (STGM_WRITE | STGM_READWRITE)) == 0) return STG_E_ACCESSDENIED;
        ULONG done = 0;
        while (done < cb) {
            const ssize_t put = write(m_fd, static_cast<const char*>(pv) + done, cb - done);
            if (put < 0 && errno == EINTR) continue;
            if (put < 0) return errno == ENOSPC ? STG_E_MEDIUMFULL : STG_E_WRITEFAULT;
            done += static_cast<ULONG>(put);
        }
        if (pcbWritten) *pcbWritten = done;
        return S_OK;
    }
    HRESULT Seek(LARGE_INTEGER dlibMove, DWORD dwOrigin, ULARGE_INTEGER* plibNewPosition) override {
        static constexpr int kWhence[] = {SEEK_SET, SEEK_CUR, SEEK_END};
        if (dwOrigin > STREAM_SEEK_END) return STG_E_INVALIDFUNCTION;
        const off_t position = lseek(m_fd, static_cast<off_t>(dlibMove.QuadPart), kWhence[dwOrigin]);
        if (position < 0) return STG_E_INVALIDFUNCTION;
        if (plibNewPosition) plibNewPosition->QuadPart = static_cast<ULONGLONG>(position);
        return S_OK;
    }
    HRESULT SetSize(ULARGE_INTEGER libNewSize) override {
        if ((m_mode & (STGM_WRITE | STGM_READWRITE)) == 0) return STG_E_ACCESSDENIED;
        return ftruncate(m_fd, static_cast<off_t>(libNewSize.QuadPart)) == 0 ? S_OK : STG_E_MEDIUMFULL;
    }
    HRESULT CopyTo(IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead,
                   ULARGE_INTEGER* pcbWritten) override {
        return CopyStream(this, pstm, cb.QuadPart, pcbRead, pcbWritten);
    }
    // Written bytes are with the system once write returns; an explicit flush to disk is left to the caller.
    HRESULT Commit(DWORD) override { return S_OK; }
    HRESULT Revert() override { return S_OK; }
    HRESULT LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return STG_E_INVALIDFUNCTION; }
    HRESULT UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return STG_E_INVALIDFUNCTION; }
    HRESULT Stat(STATSTG* pstatstg, DWORD) override {
        if (!pstatstg) return STG_E_INVALIDPOINTER;
        struct stat info {};
        if (fstat(m_fd, &info) != 0) return STG_E_ACCESSDENIED;
        *pstatstg = STATSTG{};
        pstatstg->type = STGTY_STREAM;
        pstatstg->cbSize.QuadPart = static_cast<ULONGLONG>(info.st_size);
        pstatstg->grfMode = m_mode;
        return S_OK;
    }
    HRESULT Clone(IStream**) override { return STG_E_INVALIDFUNCTION; }

protected:
    bool SupportsInterface(REFIID riid) const override { return riid == IID_IStream; }

private:
    int m_fd;
    DWORD m_mode;
};

HRESULT OpenFileStream(ULONG ulFlags, const std::string& path, const std::string& prefix,
                       LPSTREAM* lppStream) {
    if (!lppStream) return STG_E_INVALIDPOINTER;
    *lppStream = nullptr;
    const DWORD mode = ulFlags & ~SOF_UNIQUEFILENAME;
    int fd = -1;
    if (ulFlags & SOF_UNIQUEFILENAME) {
        // path names a folder; a new file named after the prefix is made in it.
        std::string pattern = path + "/" + (prefix.empty() ? std::string("SOF") : prefix) + "XXXXXX";
        fd = mkostemp(pattern.data(), O_CLOEXEC);
    } else if (mode & STGM_CREATE) {
        // Neither the file nor the folder it is made in may be a symbolic link.
        const size_t slash = path.rfind('/');
        const std::string folder =
            slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
        const int folderFd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (folderFd < 0) return ErrnoToStorageError(errno == ENOTDIR ? ELOOP : errno);
        fd = openat(folderFd, path.substr(slash == std::string::npos ? 0 : slash + 1).c_str(),
                    O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
        const int error = errno;
        close(folderFd);
        errno = error;
    } else {
        const int access = (mode & (STGM_WRITE | STGM_READWRITE)) ? O_RDWR : O_RDONLY;
        fd = open(path.c_str(), access | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    }
    if (fd < 0) return ErrnoToStorageError(errno);
    struct stat info {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || fcntl(fd, F_SETFL, 0) != 0) {
        close(fd);
        return STG_E_ACCESSDENIED;
    }
    const HRESULT hr = Guarded([&] {
        *lppStream =
            MakeObject<CFileStream>(fd, mode & STGM_CREATE ? (mode | STGM_READWRITE) : mode).Detach();
        return S_OK;
    });
    if (FAILED(hr)) close(fd);
    return hr;
}

}  // namespace
}  // namespace velmar::mapi

STDAPI OpenStreamOnFile(LPALLOCATEBUFFER, LPFREEBUFFER, ULONG ulFlags, LPCSTR lpszFileName, LPCSTR lpszPrefix,
                        LPSTREAM* lppStream) {
    if (!lpszFileName) return MAPI_E_INVALID_PARAMETER;
    return velmar::mapi::Guarded([&] {
        return velmar::mapi::OpenFileStream(ulFlags, lpszFileName, lpszPrefix ? lpszPrefix : "", lppStream);
    });
}

STDAPI OpenStreamOnFileW(LPALLOCATEBUFFER, LPFREEBUFFER, ULONG ulFlags, LPCWSTR lpszFileName,
                         LPCWSTR lpszPrefix, LPSTREAM* lppStream) {
    if (!lpszFileName) return MAPI_E_INVALID_PARAMETER;
    return velmar::mapi::Guarded([&] {
        return velmar::mapi::OpenFileStream(ulFlags, velmar::WideToUtf8(lpszFileName),
                                            lpszPrefix ? velmar::WideToUtf8(lpszPrefix) : std::string(),
                                            lppStream);
    });
}
