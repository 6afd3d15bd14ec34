// objects.h - the framework's object model on the bench: every WDF handle is
// an Object with a parent, children, cleanup and destroy callbacks and an
// optional typed context. Deleting an object deletes its children first.
#pragma once

#include "bench.h"

#include <list>
#include <memory>
#include <vector>

namespace korvanel::bench {

class Object {
public:
    enum class Kind { Driver, Device, String, IoTarget, Other };

    explicit Object(Kind kind) : kind_(kind) {}
    virtual ~Object() = default;

    Kind kind() const { return kind_; }
    Object* parent() const { return parent_; }
    const std::list<Object*>& children() const { return children_; }
    void* context() const { return context_.get(); }
    const WDF_OBJECT_CONTEXT_TYPE_INFO* context_type() const { return context_type_; }

    // The handle the driver holds: a number never given to another object,
    // so that a handle kept past its object's deletion is told from a live
    // one, as the framework's verifier tells it.
    WDFOBJECT handle() const { return handle_; }
    const char* kind_name() const;

    // Applies creation attributes (context, callbacks, parent; null attributes
    // or no parent give `default_parent`) and links the object into the tree.
    NTSTATUS attach(const WDF_OBJECT_ATTRIBUTES* attributes, Object* default_parent);

    // Runs cleanup callbacks (children first), unlinks and frees the object.
    static void destroy(Object* object);

    // Objects alive, for the unload report.
    static size_t live_count();
    // A new bench: objects a driver left alive are let go (not deleted: their
    // callbacks are the gone driver's), handles count from the start again.
    static void reset_all();

protected:
    // Called during destroy before the cleanup callbacks (a target closes here).
    virtual void on_delete() {}

private:
    Kind kind_;
    WDFOBJECT handle_ = nullptr;  // given by attach()
    Object* parent_ = nullptr;
    bool deleting_ = false;
    // Newest last; each child knows its place, so deleting one of many
    // devices or strings does not search the parent's list.
    std::list<Object*> children_;
    std::list<Object*>::iterator place_in_parent_;
    PFN_WDF_OBJECT_CONTEXT_CLEANUP cleanup_ = nullptr;
    PFN_WDF_OBJECT_CONTEXT_DESTROY destroy_ = nullptr;
    const WDF_OBJECT_CONTEXT_TYPE_INFO* context_type_ = nullptr;
    std::unique_ptr<uint8_t[]> context_;
};

// The framework driver object and what driver entry configured.
class FrameworkDriver : public Object {
public:
    FrameworkDriver() : Object(Kind::Driver) {}
    WDF_DRIVER_CONFIG config{};
    WDF_OBJECT_ATTRIBUTES attributes{};
    PDRIVER_OBJECT wdm = nullptr;
};

// Checks that a handle is a live object of the wanted kind (Other: any);
// null otherwise.
Object* lookup(WDFOBJECT handle, Object::Kind kind);

// As lookup(), for a framework method the driver called from `caller`: a
// null handle, one the framework never gave, one of a deleted object or of
// another kind stops with WDF_VIOLATION (WDF_INVALID_HANDLE), as the
// framework's verifier stops.
Object* checked(WDFOBJECT handle, Object::Kind kind, const char* method, const void* caller);
template <typename T, typename H>
T* checked_as(H handle, Object::Kind kind, const char* method, const void* caller)
{
    return static_cast<T*>(checked(reinterpret_cast<WDFOBJECT>(handle), kind, method, caller));
}

// The framework device object, with the state device add leaves behind.
DeviceObject* device_from(WDFDEVICE handle);

}  // namespace korvanel::bench
