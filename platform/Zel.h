// Zel, the object framework: counted objects that notify, collections, text forms, types by name.
#pragma once

#include "platform/zel/Entity.h"
#include "platform/zel/Exceptions.h"
#include "platform/zel/Hash.h"
#include "platform/zel/HashMap2018.h"
#include "platform/zel/Notifiee.h"
#include "platform/zel/Optional.h"
#include "platform/zel/Ptr.h"
#include "platform/zel/RbTreeMap.h"
#include "platform/zel/Strep.h"
#include "platform/zel/Type.h"
