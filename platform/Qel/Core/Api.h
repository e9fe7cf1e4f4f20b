// QEL_API marks the platform's classes and functions with default visibility, so that libraries
// built with hidden visibility (the passive entity manager) share one copy of their type
// information and state with the platform instead of keeping private copies.
#pragma once

#define QEL_API __attribute__((visibility("default")))
