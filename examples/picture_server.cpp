// A picture server: regions of one Kel file of any size, as images that browsers show.
//   picture_server FILE.kel 8000
//   http://localhost:8000/?x=4000&y=2000&width=1920&height=1080&reduce=0
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <kel/host.hpp>
#include <thread>

using namespace kel::host;

std::string AsBitmap(const Image& image) {  // 32 bits a pixel, from the top down
  const std::uint32_t fields[] = {54 + 4 * image.width * image.height,
                                  0,
                                  54,
                                  40,
                                  image.width,
                                  0 - image.height,
                                  1 | 32 << 16,
                                  0,
                                  0,
                                  0,
                                  0,
                                  0,
                                  0};
  std::string file = "BM";
  for (const std::uint32_t field : fields) {
    for (int shift = 0; shift < 32; shift += 8) file += static_cast<char>(field >> shift);
  }
  Bytes pixels(std::size_t{4} * image.width * image.height);
  PutScreenPixels(image, true, pixels.data(), std::size_t{4} * image.width);
  for (std::size_t i = 0; i < pixels.size(); i += 4) std::swap(pixels[i], pixels[i + 2]);
  return file.append(pixels.begin(), pixels.end());
}

void Serve(int client, Picture& picture) {
  char request[2048] = {};
  std::string answer = "HTTP/1.0 400 Bad Request\r\n\r\n";
  Region part{};
  unsigned reduce = 0;
  if (read(client, request, sizeof request - 1) > 0 &&
      std::sscanf(request, "GET /?x=%u&y=%u&width=%u&height=%u&reduce=%u", &part.x, &part.y,
                  &part.width, &part.height, &reduce) == 5) {
    try {
      answer = "HTTP/1.0 200 OK\r\nContent-Type: image/bmp\r\n\r\n";
      answer += AsBitmap(picture.Decode(part, reduce));
    } catch (const Error& error) {
      answer = std::string("HTTP/1.0 404 Not Found\r\n\r\n") + error.what() + "\n";
    }
  }
  for (std::size_t sent = 0; sent < answer.size();) {
    const ssize_t count = send(client, &answer[sent], answer.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) break;
    sent += static_cast<std::size_t>(count);
  }
  close(client);
}

int main(int argc, char** argv) {
  if (argc != 3) return std::puts("usage: picture_server FILE.kel PORT"), 1;
  const Session session;
  FileRanges file(argv[1]);
  Picture picture(file);  // tiles that were shown last stay decoded, up to 64 MiB
  const int listener = socket(AF_INET, SOCK_STREAM, 0), yes = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_in place{};
  place.sin_family = AF_INET;
  place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  place.sin_port = htons(static_cast<std::uint16_t>(std::atoi(argv[2])));
  if (bind(listener, reinterpret_cast<sockaddr*>(&place), sizeof place) != 0 ||
      listen(listener, 64) != 0) {
    return std::perror("picture_server"), 2;
  }
  for (;;) std::thread(Serve, accept(listener, nullptr, nullptr), std::ref(picture)).detach();
}
