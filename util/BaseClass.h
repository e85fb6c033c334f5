// Common root of the effect-side objects: a name, a path, a live-object number, an optional
// entry in the process-wide object list, and an inert float parameter interface.
// Construction and destruction happen off the render thread; the list is guarded.
#pragma once

#include "util/SDO.h"

class BaseClass {
public:
    BaseClass();
    virtual ~BaseClass();
    BaseClass(const BaseClass&) = delete;
    BaseClass& operator=(const BaseClass&) = delete;

    virtual void setParameter(int index, float value) = 0;
    virtual float getParameter(int index) = 0;
    virtual float getMinValue(int index);
    virtual float getMaxValue(int index);
    virtual float getDefaultValue(int index);
    virtual int getUniqueAddress();
    virtual void setValuesFromString(const char* text);
    virtual const char* getValuesAsString();
    virtual void setName(const char* text);
    virtual void setPath(const char* text);

    // Adds a named object (name neither "" nor "*") to the object list.
    static void registerObject(BaseClass* object);
    // Removes every entry of the object from the list.
    static void unregisterObject(BaseClass* object);
    static int instanceCountNow();
    static int registeredCount();

    const SDO::CString& getName() const { return name; }
    const SDO::CString& getPath() const { return path; }

protected:
    SDO::CPointerList* list;
    SDO::CString name;
    SDO::CString path;
    int uniqueAddress;
};
