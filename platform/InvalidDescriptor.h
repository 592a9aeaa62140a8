#pragma once

// The system's own error number for a security descriptor that isn't one.
int InvalidDescriptorError();
