// Types shared by host code and kernels: the CUDA vector types, dim3, streams,
// events and error codes.  A CUDA build takes them from the toolkit's headers;
// a CPU-only build defines its own with the same size, alignment and names, so
// no code above this layer needs to know which one it got.
#pragma once

#include <cstddef>

#if defined(__CUDACC__)
#define VELA_HD __host__ __device__
#else
#define VELA_HD
#endif

#if defined(VELA_WITH_CUDA)

#include <driver_types.h>
#include <vector_functions.h>
#include <vector_types.h>

#else  // CPU-only build: the system's own definitions.

// Kept as trivial aggregates, like the toolkit's, so they can live in block
// shared memory and be copied bytewise.
#define VELA_VEC1(name, T) \
    struct name {          \
        T x;               \
    }
#define VELA_VEC2(name, T, align) \
    struct alignas(align) name {  \
        T x, y;                   \
    }
#define VELA_VEC3(name, T) \
    struct name {          \
        T x, y, z;         \
    }
#define VELA_VEC4(name, T, align) \
    struct alignas(align) name {  \
        T x, y, z, w;             \
    }

VELA_VEC1(char1, signed char);
VELA_VEC2(char2, signed char, 2);
VELA_VEC3(char3, signed char);
VELA_VEC4(char4, signed char, 4);
VELA_VEC1(uchar1, unsigned char);
VELA_VEC2(uchar2, unsigned char, 2);
VELA_VEC3(uchar3, unsigned char);
VELA_VEC4(uchar4, unsigned char, 4);
VELA_VEC1(short1, short);
VELA_VEC2(short2, short, 4);
VELA_VEC3(short3, short);
VELA_VEC4(short4, short, 8);
VELA_VEC1(ushort1, unsigned short);
VELA_VEC2(ushort2, unsigned short, 4);
VELA_VEC3(ushort3, unsigned short);
VELA_VEC4(ushort4, unsigned short, 8);
VELA_VEC1(int1, int);
VELA_VEC2(int2, int, 8);
VELA_VEC3(int3, int);
VELA_VEC4(int4, int, 16);
VELA_VEC1(uint1, unsigned int);
VELA_VEC2(uint2, unsigned int, 8);
VELA_VEC3(uint3, unsigned int);
VELA_VEC4(uint4, unsigned int, 16);
VELA_VEC1(float1, float);
VELA_VEC2(float2, float, 8);
VELA_VEC3(float3, float);
VELA_VEC4(float4, float, 16);
VELA_VEC1(double1, double);
VELA_VEC2(double2, double, 16);
VELA_VEC3(double3, double);

#undef VELA_VEC1
#undef VELA_VEC2
#undef VELA_VEC3
#undef VELA_VEC4

struct dim3 {
    unsigned int x, y, z;
    constexpr dim3(unsigned int vx = 1, unsigned int vy = 1, unsigned int vz = 1) : x(vx), y(vy), z(vz) {}
    constexpr dim3(uint3 v) : x(v.x), y(v.y), z(v.z) {}
    constexpr operator uint3() const { return uint3{x, y, z}; }
};

typedef struct CUstream_st* cudaStream_t;
typedef struct CUevent_st* cudaEvent_t;

// The codes the host backend can raise, numbered as the CUDA runtime numbers them.
enum cudaError {
    cudaSuccess = 0,
    cudaErrorInvalidValue = 1,
    cudaErrorMemoryAllocation = 2,
    cudaErrorInvalidConfiguration = 9,
    cudaErrorInvalidPitchValue = 12,
    cudaErrorInvalidDevicePointer = 17,
    cudaErrorNoDevice = 100,
    cudaErrorInvalidResourceHandle = 400,
};
typedef enum cudaError cudaError_t;

enum cudaMemcpyKind {
    cudaMemcpyHostToHost = 0,
    cudaMemcpyHostToDevice = 1,
    cudaMemcpyDeviceToHost = 2,
    cudaMemcpyDeviceToDevice = 3,
    cudaMemcpyDefault = 4,
};

constexpr uint1 make_uint1(unsigned int x) { return uint1{x}; }
constexpr uint2 make_uint2(unsigned int x, unsigned int y) { return uint2{x, y}; }
constexpr uint3 make_uint3(unsigned int x, unsigned int y, unsigned int z) { return uint3{x, y, z}; }
constexpr uint4 make_uint4(unsigned int x, unsigned int y, unsigned int z, unsigned int w) { return uint4{x, y, z, w}; }
constexpr int2 make_int2(int x, int y) { return int2{x, y}; }
constexpr int3 make_int3(int x, int y, int z) { return int3{x, y, z}; }
constexpr int4 make_int4(int x, int y, int z, int w) { return int4{x, y, z, w}; }
constexpr float2 make_float2(float x, float y) { return float2{x, y}; }
constexpr float3 make_float3(float x, float y, float z) { return float3{x, y, z}; }
constexpr float4 make_float4(float x, float y, float z, float w) { return float4{x, y, z, w}; }
constexpr double2 make_double2(double x, double y) { return double2{x, y}; }
constexpr uchar2 make_uchar2(unsigned char x, unsigned char y) { return uchar2{x, y}; }
constexpr uchar3 make_uchar3(unsigned char x, unsigned char y, unsigned char z) { return uchar3{x, y, z}; }
constexpr uchar4 make_uchar4(unsigned char x, unsigned char y, unsigned char z, unsigned char w) {
    return uchar4{x, y, z, w};
}

#endif  // VELA_WITH_CUDA

static_assert(sizeof(float4) == 16 && alignof(float4) == 16, "float4 layout");
static_assert(sizeof(float2) == 8 && alignof(float2) == 8, "float2 layout");
static_assert(sizeof(float3) == 12 && alignof(float3) == 4, "float3 layout");
static_assert(sizeof(uint4) == 16 && alignof(uint4) == 16, "uint4 layout");
static_assert(sizeof(uint3) == 12 && alignof(uint3) == 4, "uint3 layout");
static_assert(sizeof(uint2) == 8 && alignof(uint2) == 8, "uint2 layout");
static_assert(sizeof(uchar4) == 4 && alignof(uchar4) == 4, "uchar4 layout");
static_assert(sizeof(uchar2) == 2 && alignof(uchar2) == 2, "uchar2 layout");
static_assert(sizeof(int2) == 8 && alignof(int2) == 8, "int2 layout");
static_assert(sizeof(int4) == 16 && alignof(int4) == 16, "int4 layout");
