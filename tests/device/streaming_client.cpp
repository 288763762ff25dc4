// A client that streams until somebody kills it: streaming_client DEVICE-PATH
#include "protocol/records.h"
#include "simcard/client/raw_client.h"

using namespace kestra;
using namespace kestra::simcard;

int wmain(int argc, wchar_t** argv) {
    if (argc != 2) return 2;
    RawClient client(argv[1]);
    if (client.openError() != 0 || client.openSession() != 0) return 1;
    RawStream stream(client, 0, TARNIS_OUTPUT_YUV422_8);
    if (stream.start() != 0) return 1;
    for (int frame = 0; frame < 1200; ++frame) { // an orphan ends by itself after 20 s
        wire::LockBufferReply reply = {};
        if (stream.lock(reply) != 0 || stream.unlock(reply.bufferId) != 0) return 1;
    }
    return 0;
}
