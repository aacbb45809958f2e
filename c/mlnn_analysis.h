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
 * for the next. One that mlnn_model_to_codes or mlnn_model_to_integers made has no answers but to
 * mlnn_model_time: MLNN_ERROR_MODEL.
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
  uint64_t prepared_bytes;  /**< what mlnn_pass_prepare takes at most for the image, here */
} mlnn_budget;

/** Works it out. `watch` is told of the bytes of the text, which is written to nowhere. */
MLNN_API mlnn_status mlnn_model_budget(mlnn_model model, mlnn_watch_function watch, void* data,
                                       mlnn_budget* budget);

/** Processor time for a frame, in seconds, over all measurements. */
typedef struct mlnn_frame_time {
  double median;   /**< of the measurements */
  double fastest;  /**< of them */
  double slowest;  /**< of them */
  uint64_t frames; /**< how many were computed */
} mlnn_frame_time;

/** Measures on this machine how long a model takes for a frame, where frames come one by one, over
 * random ones and for about `seconds` of processor time, above 0 and at most 3600. It measures the
 * pass that mlnn_pass_create makes, also of models that were converted. `watch` is told of 100
 * steps in all. Refused with MLNN_ERROR_MODEL where the model cannot be run or has no outputs. */
MLNN_API mlnn_status mlnn_model_time(mlnn_model model, double seconds, mlnn_watch_function watch,
                                     void* data, mlnn_frame_time* time);

/** Takes a section of a model, as "layer 1", with its digest: 32 hex digits. */
typedef void (*mlnn_digest_function)(const char* section, const char* digest, void* data);

/** Hands the digests of all sections that the file's format holds to `found`, as
 * `mlnn check --digest` prints them: they tell which parts of a model have changed, and protect
 * from no forger. `watch` is told of layers. */
MLNN_API mlnn_status mlnn_model_digest(mlnn_model model, mlnn_digest_function found,
                                       mlnn_watch_function watch, void* data);

/** A section with its digest, as mlnn_model_digest gives them. */
typedef struct mlnn_section {
  const char* name;   /**< as "layer 1" */
  const char* digest; /**< 32 hex digits */
} mlnn_section;

/** Takes a section that is not as it was, with what became of it in words, as "layer 1: is what
 * layer 2 was"; null in place of the words for one that only one of two formats holds, which is not
 * compared. */
typedef void (*mlnn_section_function)(const char* section, const char* text, void* data);

/** Compares the digests of a model with earlier ones, as `mlnn check --against` does. `format` and
 * `earlier_format` are MLNN_FORMAT_TEXT or MLNN_FORMAT_IMAGE: what the files were that the digests
 * are of. Differences go to `found` first, then what is not compared. */
MLNN_API mlnn_status mlnn_compare_digests(int32_t format, const mlnn_section* sections,
                                          size_t count, int32_t earlier_format,
                                          const mlnn_section* earlier_sections,
                                          size_t earlier_count, mlnn_section_function found,
                                          void* data);

/** How values are distributed over bins of one width. */
typedef struct mlnn_histogram {
  double low;          /**< where the first bin begins: the smallest finite value */
  double high;         /**< where the last one ends: the largest finite value */
  uint64_t not_finite; /**< values that fall into no bin */
} mlnn_histogram;

/** Counts `count` values into `bins` bins, at least one; puts how many fall into each into
 * `counts`, which has as many places. Values that are all equal fall into the middle of a range
 * around them. `watch` is told of values, each of which is looked at twice. */
MLNN_API mlnn_status mlnn_count_values(const float* values, size_t count, size_t bins,
                                       mlnn_watch_function watch, void* data, uint64_t* counts,
                                       mlnn_histogram* histogram);

/* --- What a file holds of it --- */

/** The formats of files. */
enum {
  MLNN_FORMAT_TEXT = 0, /**< docs/text-format.md */
  MLNN_FORMAT_IMAGE = 1 /**< docs/binary-format.md */
};

/** Takes a file; null bytes where it has none. */
typedef void (*mlnn_file_function)(const void* bytes, size_t length, void* data);

/** Makes a file of a model, in memory, as `mlnn convert` does. `format` is MLNN_FORMAT_TEXT or
 * MLNN_FORMAT_IMAGE; `precision` are the digits of the numbers in a text, 1 to 17, of which 9 keep
 * every bit. `found` gets what the format cannot hold as warnings, and as information what was done
 * to keep more; then `file` gets the file, or is null for who only asks. The model stays as it is.
 * `watch` is told of values that are looked at, and of bytes of a text. Refused with
 * MLNN_ERROR_MODEL where the format has no way to write the model. */
MLNN_API mlnn_status mlnn_model_fit(mlnn_model model, int32_t format, int32_t precision,
                                    mlnn_message_function found, mlnn_file_function file,
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

/** Takes a thing that two models do not agree on, as "softmax" or "property labels", with what each
 * says of it; null for the one that does not. Texts may hold any bytes but zeros, before the first
 * of which they end. */
typedef void (*mlnn_statement_function)(const char* what, const char* text, const char* other_text,
                                        void* data);

/** Compares what both models say of themselves, which is all but their parameters. */
MLNN_API mlnn_status mlnn_model_compare_statements(mlnn_model model, mlnn_model other,
                                                   mlnn_statement_function found, void* data);

/** How the scale of an output was found, of which its weights are whole multiples. */
enum {
  MLNN_ROW_SCALE_LARGEST = 0,      /**< the largest weight takes the largest code */
  MLNN_ROW_SCALE_LEAST_SQUARES = 1 /**< the one with the least squared error */
};

/** What was done to a layer. */
typedef struct mlnn_layer_quantization {
  int32_t bits;    /**< the fewest that give its weights; 0 where they are as they were */
  int32_t scale;   /**< MLNN_ROW_SCALE_LARGEST or MLNN_ROW_SCALE_LEAST_SQUARES */
  int32_t folded;  /**< 1 where its batch norm became part of its weights, else 0 */
  int32_t shifted; /**< 1 where its bias, or beta_inf, is another one, else 0 */
} mlnn_layer_quantization;

/** Takes what was done to a layer, counted from 0. */
typedef void (*mlnn_quantization_function)(size_t layer,
                                           const mlnn_layer_quantization* quantization, void* data);

/** Looks for how `other` is `model`, quantised by rows, as `mlnn quantize` does it. Each layer goes
 * to `found`; none does where the numbers differ in any other way, to the bit, or where no layer's
 * weights differ. `watch` is told of layers. */
MLNN_API mlnn_status mlnn_model_find_quantization(mlnn_model model, mlnn_model other,
                                                  mlnn_quantization_function found,
                                                  mlnn_watch_function watch, void* data);

/* --- What they do with frames --- */

/** Frames in memory: value v of frame f is values[f * stride + v]. */
typedef struct mlnn_frames {
  const float* values; /**< of all frames; may be null where there are none */
  size_t count;        /**< how many frames there are */
  size_t width;        /**< values in each of them */
  size_t stride;       /**< floats from one to the next, at least the width */
} mlnn_frames;

/** Takes a stage of a pass with its values for some frames, which are the next ones of the
 * recording. Stages are, in this order: "inputs", which are normalised and stacked; for each layer
 * K from 1 on "layer-K-affine" and "layer-K", before and after its activation; "outputs", after the
 * softmax if there is one. */
typedef void (*mlnn_stage_function)(const char* stage, const mlnn_frames* values, void* data);

/** Runs a model over a recording, and hands all stages to `found`: all of some frames, then all of
 * the next. By the width of its frames a recording is one of single frames or of input vectors;
 * where it may be both, those are single frames, unless `stacked` is other than 0. `watch` is told
 * of frames. Refused with MLNN_ERROR_SIZE where the model takes no frames of this width, and with
 * MLNN_ERROR_MODEL where it cannot be run. */
MLNN_API mlnn_status mlnn_model_trace(mlnn_model model, const mlnn_frames* recording, int stacked,
                                      mlnn_stage_function found, mlnn_watch_function watch,
                                      void* data);

/** Stages of a trace, of whatever engine made it. */
typedef struct mlnn_stage {
  const char* name;   /**< as mlnn_stage_function has it */
  mlnn_frames values; /**< for all frames */
} mlnn_stage;

/** Takes a stage with its values in both traces; null for the trace that has no such stage. With
 * null in place of the difference unless both have as many frames, of as many values; its row is
 * the value's, its column the frame's. */
typedef void (*mlnn_trace_function)(const char* stage, const mlnn_frames* values,
                                    const mlnn_frames* other_values,
                                    const mlnn_difference* difference, void* data);

/** Compares the results of two engines stage by stage, in the order in which stages are computed,
 * in whichever the traces stand. `watch` is told of stages. Refused with MLNN_ERROR_ARGUMENT where
 * there is no stage of a name, or it stands twice in one trace. */
MLNN_API mlnn_status mlnn_compare_traces(const mlnn_stage* trace, size_t stages,
                                         const mlnn_stage* other_trace, size_t other_stages,
                                         mlnn_trace_function found, mlnn_watch_function watch,
                                         void* data);

/** How far two models are apart at a stage, over all recordings. */
typedef struct mlnn_stage_difference {
  size_t values;              /**< for a frame */
  size_t other_values;        /**< the same of the other model */
  mlnn_difference difference; /**< its row is the value's, its column the frame's within the
                                 recording; of no values unless both have as many for a frame */
  size_t recording;           /**< where the largest difference is, counted from 0 */
} mlnn_stage_difference;

/** Takes a stage that both models have. */
typedef void (*mlnn_behaviour_function)(const char* stage, const mlnn_stage_difference* difference,
                                        void* data);

/** Runs two models over recordings, each on the input vectors that it makes of them itself, which
 * goes as in mlnn_model_trace; then hands each stage to `found`, and puts the number of frames for
 * which both have the same best class into `same_decisions`. `watch` is told of frames. Refused as
 * mlnn_model_trace is. */
MLNN_API mlnn_status mlnn_model_compare_behaviour(mlnn_model model, mlnn_model other,
                                                  const mlnn_frames* recordings, size_t count,
                                                  int stacked, mlnn_behaviour_function found,
                                                  mlnn_watch_function watch, void* data,
                                                  uint64_t* same_decisions);

/** What a model loses where its parameters keep some bits only. */
typedef struct mlnn_precision_loss {
  int32_t bits;                     /**< how many */
  double largest_weight_error;      /**< of the weights and biases that it computes with */
  double mean_weight_error;         /**< of the same */
  double largest_output_difference; /**< over all frames and outputs */
  uint64_t same_best_class;         /**< frames that are decided as before */
  uint64_t right_recordings;        /**< of those whose class is known */
} mlnn_precision_loss;

/** Takes what is lost with one number of bits. */
typedef void (*mlnn_precision_function)(const mlnn_precision_loss* loss, void* data);

/** Runs a model over recordings as mlnn_model_trace does, and again for each of the `widths`
 * numbers of bits, 0 to 31, with its parameters reduced to so many; hands each to `found`.
 * `classes` has the right output of each recording, counted from 0, or -1 where it is not known;
 * null knows none. Puts the recordings that the model as it is decides rightly into
 * `right_recordings`. `watch` is told of frames. Refused as mlnn_model_trace is. */
MLNN_API mlnn_status mlnn_model_sweep(mlnn_model model, const mlnn_frames* recordings, size_t count,
                                      const int32_t* classes, int stacked, const int32_t* bits,
                                      size_t widths, mlnn_precision_function found,
                                      mlnn_watch_function watch, void* data,
                                      uint64_t* right_recordings);

/** How a model is quantised by rows, and what has to be kept. */
typedef struct mlnn_quantization_options {
  int32_t scale;           /**< MLNN_ROW_SCALE_LARGEST or MLNN_ROW_SCALE_LEAST_SQUARES */
  double largest_error;    /**< a layer stays as it is where its relative error would be larger; at
                              least 0, and infinite for no such layer */
  double keep;             /**< the share of decisions that a width has to keep, 0 to 1 */
  mlnn_frames corrections; /**< input vectors over which the mean error is taken out of the biases;
                              a count of 0 leaves these */
} mlnn_quantization_options;

/** How far the values of a stage are from those of the model as it is. */
typedef struct mlnn_stage_loss {
  const char* stage; /**< as mlnn_stage_function has it */
  size_t values;     /**< for a frame */
  double largest;    /**< of the absolute differences */
  double mean;       /**< of them */
} mlnn_stage_loss;

/** What a model loses where its weights are quantised to some bits. */
typedef struct mlnn_quantization_loss {
  int32_t bits;                       /**< how many */
  int32_t keeps;                      /**< 1 where both passes keep what has to be kept, else 0 */
  uint64_t image_bytes;               /**< of the quantised model's image */
  uint64_t same_best_class;           /**< frames that are decided as before */
  uint64_t right_recordings;          /**< of those whose class is known */
  uint64_t integers_same_best_class;  /**< the same by a pass in integers */
  uint64_t integers_right_recordings; /**< the same by it */
  const mlnn_stage_loss* stages;      /**< all stages of a trace but the inputs */
  size_t stage_count;                 /**< how many there are */
} mlnn_quantization_loss;

/** Takes what is lost with one number of bits. */
typedef void (*mlnn_quantization_loss_function)(const mlnn_quantization_loss* loss, void* data);

/** What was found over all widths. */
typedef struct mlnn_quantization_proof {
  uint64_t frames;           /**< of all recordings */
  uint64_t right_recordings; /**< that the model as it is decides rightly, of those known */
  uint64_t image_bytes;      /**< of the model as it is; 0 without widths */
  int32_t smallest_width;    /**< the fewest bits that keep enough; 0 where none do */
} mlnn_quantization_proof;

/** Runs a model over recordings as mlnn_model_sweep does, and again for each of the `widths`
 * numbers of bits, 2 to 8, with its weights quantised by rows, in floats and in integers; hands
 * each to `found`, then puts what follows from all of them into `proof`, as `mlnn quantize --sweep`
 * does. The model stays as it is. `watch` is told of each frame once, and of three steps more for
 * each width. Refused as mlnn_model_trace is, and with MLNN_ERROR_MODEL where outputs or weights
 * are not finite. */
MLNN_API mlnn_status mlnn_model_prove_quantization(
    mlnn_model model, const mlnn_frames* recordings, size_t count, const int32_t* classes,
    int stacked, const mlnn_quantization_options* options, const int32_t* bits, size_t widths,
    mlnn_quantization_loss_function found, mlnn_watch_function watch, void* data,
    mlnn_quantization_proof* proof);

/* --- What lies between them --- */

/** Makes another model: the weighted mean of `count` models of one shape, at least one. `weights`
 * are numbers above 0, of which only the proportions count; null takes all models alike. What is
 * not a parameter comes from the first model, and so does a parameter that is the same in all of
 * them. `watch` is called with 0 steps. The models may be closed, and the mean is to be closed as
 * they are. Refused with MLNN_ERROR_MODEL where the models differ in what has no mean. */
MLNN_API mlnn_status mlnn_model_average(const mlnn_model* models, size_t count,
                                        const double* weights, mlnn_watch_function watch,
                                        void* data, mlnn_model* average);

#ifdef __cplusplus
}
#endif

#endif
