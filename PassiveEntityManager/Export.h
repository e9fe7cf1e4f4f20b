// Marks the public interface of libLedraPassiveEntityMgr; everything else stays hidden.
#pragma once

#define LEDRA_PEM_EXPORT __attribute__((visibility("default")))
