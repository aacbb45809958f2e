/**
 * \file
 * mlnn::analysis for C, and for every language that calls C: what one can know about models.
 *
 * Beside mlnn.h, whose rules hold here too; a program links libmlnn_analysis as well (pkg-config
 * mlnn-analysis, in CMake mlnn::analysis). Nothing here prints, or writes files.
 *
 * What is found is handed to a function of the caller's, piece by piece, with the `data` that was
 * given. Such a function is called by the thread that asked, before the call returns. It may use
 * both interfaces, but must not close the model that is looked at; it must return, and throw
 * nothing. Texts and structs that it gets hold until it returns.
 *
 * What may take a while has a `watch`, which can stop it; null for none. It gets the same `data`.
 *
 * A model that is run from where its image lies is read into memory for each question, and again
 * for the next. One that mlnn_model_to_codes or mlnn_model_to_integers made has no answers:
 * MLNN_ERROR_MODEL.
 */
#ifndef MLNN_ANALYSIS_H
#define MLNN_ANALYSIS_H

#include <mlnn.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Is called several times a second with the number of steps that were done since the last call; 0
 * where there is nothing to count yet. What a step is, the function that calls it says. 0 lets the
 * work go on; any other value stops it, and the function that was asked returns MLNN_STOPPED, with
 * no message. */
typedef int (*mlnn_watch_function)(size_t steps, void* data);

/* --- What is wrong, or odd --- */

/** Looks at a file of either format in memory, as `mlnn check` does. `found` gets, each as a line
 * for people: where the file does not load, an error that tells the first place that does not fit;
 * else a warning for everything that can hardly be meant. What the reader itself says comes as
 * messages, as for mlnn_model_open_memory, where `hidden_act_fn` is explained; the reader cannot be
 * stopped. `watch` is told of bytes. Refused with MLNN_ERROR_MODEL where the file does not load. */
MLNN_API mlnn_status mlnn_check_memory(const void* bytes, size_t length, const char* hidden_act_fn,
                                       mlnn_message_function found, mlnn_watch_function watch,
                                       void* data);

/** The same for a model that is open: what a text's lines would tell is left out. `watch` is told
 * of layers. */
MLNN_API mlnn_status mlnn_model_check(mlnn_model model, mlnn_message_function found,
                                      mlnn_watch_function watch, void* data);

/* --- What it is --- */

/** A layer in numbers. */
typedef struct mlnn_layer_summary {
  size_t inputs;               /**< values in an input vector */
  size_t outputs;              /**< values in an output vector */
  int32_t batch_norm;          /**< 1 for a layer with batch normalisation, else 0 */
  int32_t row_bits;            /**< to how many bits rows are quantised; 0 where they are not */
  const char* act_fn;          /**< the name of the activation */
  const char* image_weights;   /**< how an image stores the weights, as "bytes by rows" */
  uint64_t image_weight_bytes; /**< what they take there */
  uint64_t parameters;         /**< the numbers that it computes or is trained with */
} mlnn_layer_summary;

/** Takes a layer, counted from 0. */
typedef void (*mlnn_layer_function)(size_t layer, const mlnn_layer_summary* summary, void* data);

/** Hands each layer to `found`. `watch` is told of layers. */
MLNN_API mlnn_status mlnn_model_summary(mlnn_model model, mlnn_layer_function found,
                                        mlnn_watch_function watch, void* data);

/** What a model needs of whoever deploys it. */
typedef struct mlnn_budget {
  uint64_t parameter_bytes; /**< all arrays of all layers */
  uint64_t read_bytes;      /**< those among them that a pass reads */
  uint64_t working_bytes;   /**< what a pass keeps besides, given one frame at a time */
  uint64_t multiply_adds;   /**< for a frame */
  uint64_t activations;     /**< for a frame: values that go through an activation or a softmax */
  uint64_t image_bytes;     /**< the file as an image; 0 where it cannot be written so */
  uint64_t text_bytes;      /**< the file as a text; 0 where it cannot be written so */
} mlnn_budget;

/** Works it out. `watch` is told of the bytes of the text, which is written to nowhere. */
MLNN_API mlnn_status mlnn_model_budget(mlnn_model model, mlnn_watch_function watch, void* data,
                                       mlnn_budget* budget);

/** Takes a section of a model, as "layer 1", with its digest: 32 hex digits. */
typedef void (*mlnn_digest_function)(const char* section, const char* digest, void* data);

/** Hands the digests of all sections that the file's format holds to `found`, as
 * `mlnn check --digest` prints them: they tell which parts of a model have changed, and protect
 * from no forger. `watch` is told of layers. */
MLNN_API mlnn_status mlnn_model_digest(mlnn_model model, mlnn_digest_function found,
                                       mlnn_watch_function watch, void* data);

/* --- How two differ --- */

/** How far apart two arrays of numbers are. */
typedef struct mlnn_difference {
  uint64_t values;         /**< in each of them */
  uint64_t differing;      /**< pairs that are not equal */
  double largest;          /**< of the absolute differences; infinite beside what is no number */
  double mean;             /**< of the absolute differences */
  double root_mean_square; /**< of them */
  double cosine;           /**< of the angle between the two */
  size_t row;              /**< where the largest is, counted from 0 */
  size_t column;           /**< the same */
  uint32_t largest_ulps;   /**< units in the last place */
} mlnn_difference;

/** Takes an array of a layer, counted from 0, as "weights"; with null in place of both where the
 * layers differ in shape. */
typedef void (*mlnn_difference_function)(size_t layer, const char* array,
                                         const mlnn_difference* difference, void* data);

/** Compares the parameters of each layer that both models have, array by array. `watch` is told of
 * layers. */
MLNN_API mlnn_status mlnn_model_compare(mlnn_model model, mlnn_model other,
                                        mlnn_difference_function found, mlnn_watch_function watch,
                                        void* data);

#ifdef __cplusplus
}
#endif

#endif
