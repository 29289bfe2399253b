// GMime for our MIME reading: initialised once per process, objects held by an owning pointer.
#pragma once

#include <gmime/gmime.h>

#include <memory>
#include <string>
#include <vector>

namespace velmar::mapi {

// Safe to call from any thread, any number of times.
void EnsureGMime();

struct CGObjectUnref {
    void operator()(gpointer object) const {
        if (object) g_object_unref(object);
    }
};
template <class T>
using GObjectPtr = std::unique_ptr<T, CGObjectUnref>;

// A second owner of a GObject the caller does not own.
template <class T>
GObjectPtr<T> RefObject(T* object) {
    if (object) g_object_ref(object);
    return GObjectPtr<T>(object);
}

// Takes a g_malloc'ed string (may be null) and frees it.
std::string TakeGString(char* text);

// The raw values of the object's header fields of that name (any letter case), in the order of the file:
// the bytes after the colon as they stand there, folds and the final line break included.
std::vector<std::string> RawHeaderValues(GMimeObject* object, const char* name);

}  // namespace velmar::mapi
