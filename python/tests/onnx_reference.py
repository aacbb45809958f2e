"""What an ONNX graph computes, by the operators' definitions in its operator set: in PyTorch and
double precision. A graph that an operator set does not allow raises Invalid; one whose outputs
depend on more than a frame, as in training, gives what it then gives."""
import numpy as np
import onnx
import torch

functional = torch.nn.functional


class Invalid(Exception):
    pass


def require(condition):
    if not condition:
        raise Invalid


def broadcast_at(axis, values, other):
    """The other one in the shape that broadcast and axis gave it before operator set 7."""
    if other.numel() == 1 and other.dim() <= values.dim():
        return other.reshape(())
    start = values.dim() - other.dim() if axis is None else axis % values.dim()
    end = start + other.dim()
    require(0 <= start and end <= values.dim() and values.shape[start:end] == other.shape)
    return other.reshape(other.shape + (1,) * (values.dim() - end))


def one_way(values, other):
    """The sum, where the other one is broadcast to the values' shape."""
    try:
        total = values + other
    except RuntimeError:
        raise Invalid from None
    require(total.shape == values.shape)
    return total


def both_ways(values, other, operation):
    try:
        return operation(values, other)
    except RuntimeError:
        raise Invalid from None


class Reference:
    def __init__(self, proto):
        self.graph = proto.graph
        self.opset = max(entry.version for entry in proto.opset_import)

    def __call__(self, inputs):
        values = {tensor.name: torch.from_numpy(onnx.numpy_helper.to_array(tensor).copy())
                  for tensor in self.graph.initializer}
        values = {name: v.double() if v.is_floating_point() else v for name, v in values.items()}
        values[self.graph.input[0].name] = torch.from_numpy(np.asarray(inputs)).double()
        for node in self.graph.node:
            operation = getattr(self, node.op_type)
            attributes = {a.name: onnx.helper.get_attribute_value(a) for a in node.attribute}
            values[node.output[0]] = operation(
                attributes, *(values[name] for name in node.input), outputs=len(node.output))
        return values[self.graph.output[0].name].numpy()

    def Gemm(self, a, x, w, c=None, outputs=1):
        require(x.dim() == 2 and w.dim() == 2)
        w = w.T if a.get("transB", 0) else w
        require(x.shape[1] == w.shape[0])
        product = a.get("alpha", 1.0) * (x @ w)
        if c is None:
            return product
        if self.opset < 7:
            require(a.get("broadcast", 0) or c.shape == product.shape)
        return one_way(product, a.get("beta", 1.0) * c)

    def MatMul(self, a, x, w, outputs=1):
        require(x.dim() > 0 and w.dim() > 0 and x.shape[-1] == w.shape[-2 if w.dim() > 1 else 0])
        return both_ways(x, w, torch.matmul)

    def arithmetic(self, a, x, y, operation):
        if self.opset >= 7:
            return both_ways(x, y, operation)
        if a.get("broadcast", 0):
            return operation(x, broadcast_at(a.get("axis"), x, y))
        require(x.shape == y.shape)
        return operation(x, y)

    def Add(self, a, x, y, outputs=1):
        return self.arithmetic(a, x, y, torch.add)

    def Sub(self, a, x, y, outputs=1):
        return self.arithmetic(a, x, y, torch.sub)

    def Mul(self, a, x, y, outputs=1):
        return self.arithmetic(a, x, y, torch.mul)

    def Div(self, a, x, y, outputs=1):
        return self.arithmetic(a, x, y, torch.div)

    def BatchNormalization(self, a, x, scale, shift, mean, var, outputs=1):
        require(x.dim() >= 2 and all(v.shape == x.shape[1:2] for v in (scale, shift, mean, var)))
        if self.opset < 7:
            training = not a.get("is_test", 0)
        elif self.opset < 14:
            training = outputs > 1
        else:
            training = a.get("training_mode", 0)
        return functional.batch_norm(x, mean, var, scale, shift, bool(training), 0.1,
                                     a.get("epsilon", float(np.float32(1e-5))))

    def Dropout(self, a, x, ratio=None, mode=None, outputs=1):
        training = not a.get("is_test", 0) if self.opset < 7 else mode is not None and bool(mode)
        rate = float(ratio) if ratio is not None else a.get("ratio", 0.5)
        return functional.dropout(x, rate, bool(training))

    def Softmax(self, a, x, outputs=1):
        if self.opset >= 13:
            axis = a.get("axis", -1)
            require(-x.dim() <= axis < x.dim())
            return torch.softmax(x, axis)
        axis = a.get("axis", 1)
        require(-x.dim() <= axis < x.dim())
        rows = x.reshape(int(np.prod(x.shape[:axis % x.dim()])), -1)
        return torch.softmax(rows, 1).reshape(x.shape)

    def Sigmoid(self, a, x, outputs=1):
        return torch.sigmoid(x)

    def Tanh(self, a, x, outputs=1):
        return torch.tanh(x)

    def Relu(self, a, x, outputs=1):
        return torch.relu(x)

    def Softplus(self, a, x, outputs=1):
        return functional.softplus(x, threshold=100)

    def LeakyRelu(self, a, x, outputs=1):
        return functional.leaky_relu(x, a.get("alpha", 0.01))

    def Elu(self, a, x, outputs=1):
        return functional.elu(x, a.get("alpha", 1.0))

    def Cast(self, a, x, outputs=1):
        require(not x.is_floating_point() or a["to"] in (onnx.TensorProto.FLOAT, onnx.TensorProto.DOUBLE))
        return x.clone()

    def Flatten(self, a, x, outputs=1):
        axis = a.get("axis", 1)
        require((0 if self.opset < 11 else -x.dim()) <= axis <= x.dim())
        axis = axis + x.dim() if axis < 0 else axis
        return x.reshape(int(np.prod(x.shape[:axis])), -1)

    def Reshape(self, a, x, shape=None, outputs=1):
        target = a["shape"] if self.opset < 5 else shape.tolist()
        target = [x.shape[i] if n == 0 and i < x.dim() else n for i, n in enumerate(target)]
        try:
            return x.reshape(target)
        except RuntimeError:
            raise Invalid from None

    def Shape(self, a, x, outputs=1):
        return torch.tensor(x.shape)

    def Gather(self, a, x, index, outputs=1):
        return x[index]

    def Unsqueeze(self, a, x, axes=None, outputs=1):
        return x.reshape(1)

    def Concat(self, a, *values, outputs=1):
        return torch.cat(values, a["axis"])

    def Slice(self, a, x, starts, ends, axes, outputs=1):
        require(axes.tolist() == [0])
        return x[int(starts):int(ends)]

    def Clip(self, a, x, low=None, high=None, outputs=1):
        low = a.get("min") if self.opset < 11 else low
        high = a.get("max") if self.opset < 11 else high
        x = x if low is None else torch.maximum(x, torch.as_tensor(low, dtype=x.dtype))
        return x if high is None else torch.minimum(x, torch.as_tensor(high, dtype=x.dtype))

    def Max(self, a, x, y, outputs=1):
        require(self.opset >= 8 or x.shape == y.shape)
        return both_ways(x, y, torch.maximum)

    def Identity(self, a, x, outputs=1):
        return x.clone()

    def DequantizeLinear(self, a, x, scale, zero=None, outputs=1):
        shape = [1] * x.dim()
        if scale.dim() == 1:
            shape[a.get("axis", 1)] = -1
        zero = torch.zeros_like(scale) if zero is None else zero.double()
        return (x.double() - zero.reshape(shape if zero.dim() else ())) * scale.reshape(
            shape if scale.dim() else ())
