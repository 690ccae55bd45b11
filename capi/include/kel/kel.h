/* Kel images for C, and for every language that can call C: what a file holds, decoding it as a
   whole, reduced or in part, and encoding, in memory and in files.

   Functions return a kel_status; after one that is not KEL_OK, kel_error_text says what happened,
   on the thread that it happened on. Structures begin with their size, which their ..._init
   functions set: a program built with an older header goes on working with a newer library. All
   functions may be called on any thread, an object by one thread at a time. */
#ifndef KEL_KEL_C_H
#define KEL_KEL_C_H

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32) && defined(KELC_BUILDING)
#define KEL_C_API __declspec(dllexport)
#elif defined(_WIN32)
#define KEL_C_API __declspec(dllimport)
#else
#define KEL_C_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef enum kel_status {
  KEL_OK = 0,
  KEL_ERROR_INPUT = 1,      /* data that cannot be read or decoded */
  KEL_ERROR_INCOMPLETE = 2, /* data that end early, where that was not accepted */
  KEL_ERROR_OUTPUT = 3,     /* a file that cannot be written, or an image that it cannot hold */
  KEL_ERROR_MEMORY = 4,     /* out of memory, or beyond the limit */
  KEL_ERROR_PARAMETER = 5,  /* an argument that is not allowed */
  KEL_ERROR_STOPPED = 6,    /* the progress function wanted it */
  KEL_ERROR_UNEXPECTED = 7  /* a fault of the library */
} kel_status;

/* Such as "1.0.30866"; constant. */
KEL_C_API const char* kel_version(void);

/* What the last function that failed on this thread had to say, without capital and full stop;
   valid until the next one fails. Empty when none has. */
KEL_C_API const char* kel_error_text(void);

/* Most bytes that may be held at a time for those who name no session, 0 for no limit, which is
   what it begins with. KEL_ERROR_PARAMETER while files or images of theirs are open. */
KEL_C_API kel_status kel_set_memory_limit(uint64_t bytes);

/* Called as work goes on, on any thread, one call at a time: pieces done of all. Another result
   than 0 stops the work. */
typedef int (*kel_progress)(void* user, size_t done, size_t total);

/* ---- Sessions ---- */

/* One of the users that the library has in a process, such as plug-ins, with limits and counters
   of its own. Those who name no session share one, with kel_set_memory_limit's limit. */
typedef struct kel_session kel_session;

typedef struct kel_limits {
  size_t size;
  uint64_t memory; /* most bytes held at a time; 0, the default: any number */
  uint64_t pixels; /* most pixels of an image or a part; 0: any number; 2^30 by default */
  double seconds;  /* longest time of a call; 0, the default: any. It ends as KEL_ERROR_STOPPED */
} kel_limits;

KEL_C_API void kel_limits_init(kel_limits* limits);

/* *session, which is null after a failure, belongs to the caller: kel_close_session. What was made
   in it may live longer. limits may be null. */
KEL_C_API kel_status kel_open_session(const kel_limits* limits, kel_session** session);
KEL_C_API void kel_close_session(kel_session* session); /* null does nothing */
/* Bytes that are held for a session now, and the most there were. Each place may be null. */
KEL_C_API kel_status kel_get_usage(const kel_session* session, uint64_t* held, uint64_t* most);

/* ---- What a file holds ---- */

typedef struct kel_file kel_file;

/* Reads what is in front of the samples. *file, which is null after a failure, belongs to the
   caller: kel_close. The bytes must stay until then. */
KEL_C_API kel_status kel_open_memory(const void* bytes, size_t length, kel_file** file);
KEL_C_API kel_status kel_open_file(const char* path, kel_file** file);
/* The same in a session, which may be null. What is decoded of the file counts there too. */
KEL_C_API kel_status kel_open_memory_in(const kel_session* session, const void* bytes,
                                        size_t length, kel_file** file);
KEL_C_API kel_status kel_open_file_in(const kel_session* session, const char* path,
                                      kel_file** file);
KEL_C_API void kel_close(kel_file* file); /* null does nothing */

typedef struct kel_info {
  size_t size;
  uint32_t width, height;
  uint32_t channels; /* as kel_decode delivers them */
  uint32_t depth;    /* bits of a sample, as kel_decode delivers them */
  uint32_t has_opacity;
  uint32_t lossless;
  uint32_t tiles;
  uint32_t levels; /* halvings that decoding can leave out cheaply */
} kel_info;

/* info->size says how much of it there is. */
KEL_C_API void kel_info_init(kel_info* info);
KEL_C_API kel_status kel_get_info(const kel_file* file, kel_info* info);

/* ---- Decoding ---- */

typedef struct kel_decode_options {
  size_t size;
  uint32_t reduce;              /* halvings of width and height */
  uint32_t x, y, width, height; /* a part of the reduced image; width and height 0: all of it */
  uint32_t accept_incomplete;   /* not 0: what is there, instead of KEL_ERROR_INCOMPLETE */
  uint32_t threads;             /* 0: one per processor */
  kel_progress progress;        /* may be null */
  void* user;                   /* for progress */
  uint32_t exact; /* not 0: lossy samples of up to 8 bits in double instead of single precision */
} kel_decode_options;

KEL_C_API void kel_decode_options_init(kel_decode_options* options);

/* Samples of an image: rows of pixels, each pixel its channels one after another (grey; red, green,
   blue; and opacity last where there is one), each sample of one byte up to a depth of 8, of two
   up to 16, else of four, in the byte order of the machine. */
typedef struct kel_pixels {
  size_t size;
  uint32_t width, height, channels;
  uint32_t depth; /* 1 to 32 bits; 1 to 28 for encoding */
  uint32_t has_opacity;
  size_t stride; /* bytes from row to row */
  const void* samples;
} kel_pixels;

KEL_C_API void kel_pixels_init(kel_pixels* pixels);

typedef struct kel_image kel_image;

/* Decodes into an image of its own, which belongs to the caller: kel_free_image. Palettes are
   looked up, luminance and chroma become red, green and blue. Of a part only the tiles that it
   touches are read and decoded, unless the channels have different sizes or the file cannot be
   reduced so far without averages. options may be null. */
KEL_C_API kel_status kel_decode(const kel_file* file, const kel_decode_options* options,
                                kel_image** image);
/* The samples, which stand as long as the image. */
KEL_C_API kel_status kel_get_pixels(const kel_image* image, kel_pixels* pixels);
KEL_C_API void kel_free_image(kel_image* image); /* null does nothing */

/* ---- Encoding ---- */

typedef struct kel_encode_options {
  size_t size;
  uint32_t lossless;                /* not 0: every sample is kept */
  uint32_t quality;                 /* 1 to 100 of lossy coding; 60 */
  uint64_t size_limit;              /* not 0: the best file of at most so many bytes */
  uint32_t tile_width, tile_height; /* 0: chosen by the size of the image */
  uint32_t threads;                 /* 0: one per processor */
  kel_progress progress;            /* may be null */
  void* user;                       /* for progress */
  const kel_session* session;       /* may be null */
} kel_encode_options;

KEL_C_API void kel_encode_options_init(kel_encode_options* options);

/* Makes a file in memory. *bytes belongs to the caller: kel_free_bytes. options may be null. */
KEL_C_API kel_status kel_encode_memory(const kel_pixels* pixels, const kel_encode_options* options,
                                       void** bytes, size_t* length);
/* Makes a file, or replaces the one there is. What a failure leaves is not a whole file. */
KEL_C_API kel_status kel_encode_file(const kel_pixels* pixels, const kel_encode_options* options,
                                     const char* path);
KEL_C_API void kel_free_bytes(void* bytes); /* null does nothing */

#ifdef __cplusplus
}
#endif

#endif
