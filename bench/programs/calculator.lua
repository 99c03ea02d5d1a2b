local function push(stack, value)
  stack.size = stack.size + 1
  stack.items[stack.size] = value
end
local function take(stack)
  local value = stack.items[stack.size]
  stack.size = stack.size - 1
  return value
end
local function calculate(formula, x)
  local stack = {size = 0, items = {}}
  for _, token in ipairs(formula) do
    if token == "x" then
      push(stack, x)
    elseif token == "+" then
      push(stack, take(stack) + take(stack))
    elseif token == "*" then
      push(stack, take(stack) * take(stack))
    elseif token == "-" then
      local right = take(stack)
      push(stack, take(stack) - right)
    elseif token == "mod" then
      local right = take(stack)
      push(stack, take(stack) % right)
    else
      push(stack, token)
    end
  end
  return take(stack)
end

local formula, sum = {"x", 3, "+", "x", 7, "*", 2, "-", "x", "mod", 5, "+", "*", 1009, "mod"}, 0
for x = 1, math.tointeger(arg[1]) do sum = sum + calculate(formula, x) end
print(sum)
