// The host's argument-count errors for builtins, as identified exceptions of component "host:builtins".
#pragma once

[[noreturn]] void error_maxlhs();  // TooManyOutputs
[[noreturn]] void error_maxrhs();  // TooManyInputs
[[noreturn]] void error_minrhs();  // NotEnoughInputs
