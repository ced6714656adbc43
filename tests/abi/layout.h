/* The layout of every public record, and the constants that are ABI, as the contract lists them. Included
 * after qvrt.h alone by a C11 and by C++ programs: if this compiles, it holds. */
#ifdef __cplusplus
#define HOLDS static_assert
#else
#define HOLDS _Static_assert
#endif
#define AT(record, field, offset) HOLDS(offsetof(record, field) == (offset), #record "." #field)
#define SIZE(record, bytes, alignment) \
  HOLDS(sizeof(record) == (bytes), #record);  \
  HOLDS(sizeof(struct { char one; record it; }) == (bytes) + (alignment), #record " alignment")
