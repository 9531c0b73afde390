#pragma once

// The part of the Objective-C runtime that this system uses, declared as its header declares it.

extern "C" {

id _Nullable objc_loadWeak(id _Nullable* _Nonnull location);
id _Nullable objc_storeWeak(id _Nullable* _Nonnull location, id _Nullable obj);

}  // extern "C"
