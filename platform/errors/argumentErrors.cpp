#include "platform/errors/argumentErrors.h"

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

void error_maxlhs() {
  throw Exception<host::builtins::TooManyOutputs>();
}

void error_maxrhs() {
  throw Exception<host::builtins::TooManyInputs>();
}

void error_minrhs() {
  throw Exception<host::builtins::NotEnoughInputs>();
}
