#ifndef KESA_TESTS_SYSTEM_ACTOR_SAY_H
#define KESA_TESTS_SYSTEM_ACTOR_SAY_H

#include <string>

/// Tells the test one event, as one line on stdout. Any thread.
void say(const std::string& event);

#endif
