#pragma once

#include <glib-object.h>

#include <memory>

namespace NorvAnalytic {

// A GObject reference that is let go with its owner.
struct GObjectUnref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename Object>
using GObjectPtr = std::unique_ptr<Object, GObjectUnref>;

}  // namespace NorvAnalytic
