// Mox: the entity framework every part of the policy core is built on, one idea per header:
//  - platform/MoxRefCount.h: intrusive reference counting (RefCounted, Ptr, make);
//  - platform/MoxHash.h: how keys hash, and the hash and ordered tables entities keep;
//  - platform/MoxSmallContainers.h: a set and a map for a member or two (SmallSet, SmallMap);
//  - platform/MoxEntity.h: entities, reactors and the order of their notifications;
//  - platform/MoxBounded.h: bounded integers and their range error;
//  - platform/MoxText.h: printf-style helpers for dumps.
// This header includes them all.
#pragma once

#include "platform/MoxBounded.h"
#include "platform/MoxEntity.h"
#include "platform/MoxHash.h"
#include "platform/MoxRefCount.h"
#include "platform/MoxSmallContainers.h"
#include "platform/MoxText.h"
