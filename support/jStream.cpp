#include <support/jStream.h>

namespace kor {

jStream::~jStream() = default;

} // namespace kor
